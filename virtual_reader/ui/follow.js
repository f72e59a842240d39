// Follows the events and the reader's state. A browser grants a server six connections only, and each
// page that follows holds one: a hidden page pauses, if it can do without what happens meanwhile.
import { execute } from './verbs.js';

const pause = (ms) => new Promise((pass) => { setTimeout(pass, ms); });
const change = () => new Promise((pass) => {
  document.addEventListener('visibilitychange', pass, { once: true });
});
let next = 1; // the number behind the last event
let isRunning;
let isStale = false;
let isAsking = false;

// Calls back with what `show --json` answers. Whatever happens meanwhile makes it ask once more.
export async function updateState(onState) {
  isStale = true;
  if (isAsking) return;
  isAsking = true;
  for (; isStale && isRunning; await pause(100)) {
    isStale = false;
    await execute('show --json').then(JSON.parse).then(onState, () => { isStale = true; });
  }
  isAsking = false;
}

function setLink(now, onLink) {
  if (now !== isRunning) onLink(isRunning = now);
}

async function followOnce(onEvents, onLink, canPause) {
  const known = JSON.parse(await execute('events --json 1') || '{"number":0}').number;
  const stop = new AbortController();
  if (canPause) change().then(() => stop.abort());
  const answer = await fetch('events', { signal: stop.signal });
  if (!answer.ok) throw new Error(await answer.text());
  setLink(true, onLink);
  const chunks = answer.body.pipeThrough(new TextDecoderStream()).getReader();
  for (let rest = '', chunk = await chunks.read(); !chunk.done; chunk = await chunks.read()) {
    const lines = (rest + chunk.value).split('\n');
    rest = lines.pop();
    const events = lines.map((line) => JSON.parse(line))
      .filter(({ number, repeats }) => number + repeats > next);
    if (events.length) next = events.at(-1).number + events.at(-1).repeats;
    onEvents(events.map((event) => ({ ...event, isNew: event.number > known })));
  }
}

// Calls back with events, each once, and with whether the reader answers. An event `isNew` unless it
// was known before.
export async function follow(onEvents, onLink, canPause) {
  for (;;) {
    if (canPause && document.hidden) await change();
    await followOnce(onEvents, onLink, canPause)
      .catch(({ name }) => name === 'AbortError' || setLink(false, onLink));
    await pause(500);
  }
}
