// The page: events and state go to each of its parts, in batches.
import { at } from './page.js';
import { beep } from './sound.js';
import { execute } from './verbs.js';
import { follow, updateState } from './follow.js';
import * as reader from './reader.js';
import * as cards from './cards.js';
import * as faults from './faults.js';
import * as application from './application.js';
import * as script from './script.js';
import * as eventLog from './event_log.js';
import * as timeline from './timeline.js';

const parts = [reader, cards, faults, application, script, eventLog, timeline];
let batch = [];
let state;
let timer;

function draw(now) {
  state = now;
  document.title = now.part ? `${now.part} · Virtual reader` : 'Virtual reader';
  for (const part of parts) part.draw?.(now);
}

function setLink(isRunning) {
  at('link').textContent = isRunning ? 'running' : 'has exited, or does not answer';
  document.body.classList.toggle('is-lost', !isRunning);
  if (!isRunning && document.activeElement.closest('.controls')) at('link').focus();
  for (const each of document.querySelectorAll('.controls')) each.inert = !isRunning;
  if (isRunning) updateState(draw);
  else if (state) draw({ ...state, is_plugged: false, led: 'dark', held: null, queued: [], agents: [], calls: [], faults: [] });
}

function update() {
  const events = batch.splice(0);
  timer = undefined;
  for (const part of parts) part.add?.(events);
  for (const event of events) if (event.isNew && event.kind === 'beep') beep(event);
  updateState(draw);
}

// The script starts once its events are followed, and its verdict is the last.
const lines = await execute('show --json').then((shown) => JSON.parse(shown).script && execute('script'))
  .catch(() => '');
if (lines) script.show(lines);
follow((events) => {
  batch.push(...events);
  batch.splice(0, batch.length - 5000);
  timer ??= setTimeout(update, 50);
}, setLink, !lines);
