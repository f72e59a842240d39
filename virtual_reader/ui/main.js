// The page: what happens goes to each of its parts.
import { at, follow } from './link.js';
import { beep } from './sound.js';
import * as reader from './reader.js';
import * as host from './host.js';
import * as record from './record.js';

const parts = [reader, host, record];
const spoken = /^(led|beep|card|plugged|unplugged|connected|disconnected|fault|received) /;
let news = [];

// To whoever hears the page, in a few words: what is shown all over it.
setInterval(() => {
  if (news.length) at('news').textContent = news.slice(-5).join(', ');
  news = [];
}, 300);

function setLink(isThere) {
  document.querySelector('main').inert = !isThere;
  at('link').textContent = isThere ? 'live' : '';
  at('trouble').textContent =
    isThere ? '' : 'The reader has ended. Start it again, and open its new address.';
}

follow({
  begins() {
    setLink(true);
    for (const part of parts) part.begin();
  },
  entries(entries) {
    for (const part of parts) part.take(entries);
    for (const { kind, text } of entries.filter(({ isNew }) => isNew)) {
      if (spoken.test(`${kind} ${text} `)) news.push(`${kind} ${text}`);
      if (kind === 'beep') beep(...text.split(' '));
    }
  },
  ends: () => setLink(false),
});
