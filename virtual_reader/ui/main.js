// The page: events and state go to each of its parts, once a frame at most.
import { at } from './page.js';
import { beep } from './sound.js';
import * as reader from './reader.js';
import * as cards from './cards.js';
import * as faults from './faults.js';
import * as application from './application.js';
import * as script from './script.js';
import * as eventLog from './event_log.js';
import * as timeline from './timeline.js';

const parts = [reader, cards, faults, application, script, eventLog, timeline];
const announced = /^(led|beep|card|plugged|unplugged|connected|disconnected|fault|verdict|received (Ok|Error):)/;
let events = [];
let state;
let hasHistory = false;
let frame;
let news = [];

// To listeners, in a few words, what is shown all over the page.
setInterval(() => {
  if (news.length) at('news').textContent = news.slice(-5).join(', ');
  news = [];
}, 300);

function setLink(isRunning) {
  at('link').textContent = isRunning ? 'running'
    : 'does not answer. If it has exited, start it again, and open its new address.';
  document.body.classList.toggle('is-lost', !isRunning);
  if (!isRunning && document.activeElement.closest('.controls')) at('link').focus();
  for (const each of document.querySelectorAll('.controls')) each.inert = !isRunning;
  state = isRunning ? null : state && { ...state, is_plugged: false, led: 'dark', held: null,
    queued: [], more_queued: 0, agents: [], refused: [], calls: [], faults: [] };
}

function draw(now) {
  document.title = now.part ? `${now.part} · Virtual reader` : 'Virtual reader';
  for (const part of parts) part.draw?.(now);
}

function update() {
  frame = undefined;
  for (const part of parts) part.add?.(events);
  for (const event of events.filter(({ isNew }) => isNew)) {
    if (announced.test(event.text)) news.push(event.text);
    if (event.kind === 'beep') beep(event);
  }
  events = [];
  if (state) draw(state);
}

// In a hidden tab no frame comes: its events wait, at most 5000, and are no news once it is seen.
const { port } = new SharedWorker('worker.js', { type: 'module' });
port.onmessage = ({ data }) => {
  if (data.events) {
    const isNew = hasHistory && !document.hidden;
    hasHistory = true;
    for (const event of data.events) events.push({ ...event, isNew });
    events.splice(0, events.length - 5000);
  }
  if (data.link !== undefined) setLink(data.link);
  if (data.script) script.show(data.script);
  state = data.state ?? state;
  frame ??= requestAnimationFrame(update);
};
addEventListener('pagehide', () => port.postMessage('closing'));
addEventListener('pageshow', ({ persisted }) => persisted && location.reload());
