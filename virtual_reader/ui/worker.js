// One for all tabs, since a browser grants a server six connections only: follows the event log,
// asks for the reader's state, and sends both to each tab.
import { execute } from './verbs.js';

const tabs = new Set();
const events = []; // the last ones, for tabs that are opened later
let batch = []; // events that the tabs do not have yet
let next = 1; // the number behind the last event
let history = Infinity; // the number of the last event from before the worker started
let link; // whether the reader answers
let state = null; // what `show --json` answers
let script; // the lines of the script, if one is run
let isStale = false;
let isAsking = false;

const pause = (ms) => new Promise((pass) => { setTimeout(pass, ms); });
const hasHistory = () => next > history;
const send = (message) => tabs.forEach((tab) => tab.postMessage(message));

// Whatever happens meanwhile makes it ask once more.
async function updateState() {
  isStale = true;
  if (isAsking) return;
  isAsking = true;
  while (isStale && link) {
    isStale = false;
    try {
      state = JSON.parse(await execute('show --json'));
      send({ state });
    } catch {
      isStale = true;
    }
    await pause(100);
  }
  isAsking = false;
}

function flush() {
  if (!hasHistory() || !batch.length) return;
  send({ events: batch });
  events.push(...batch);
  events.splice(0, events.length - 5000);
  batch = [];
  updateState();
}

function read(line) {
  const event = JSON.parse(line);
  const end = event.number + event.repeats;
  if (end <= next) return; // known from the connection before
  next = end;
  batch.push(event);
  if (batch.length > 5000) batch.shift();
}

function setLink(now) {
  if (now === link) return;
  link = now;
  send({ link, script });
  updateState();
}

async function follow() {
  if (history === Infinity) {
    history = JSON.parse(await execute('events --json 1') || '{"number":0}').number;
  }
  script ??= await execute('script').catch(() => ''); // which starts once its events are followed
  const answer = await fetch('events');
  if (!answer.ok) throw new Error(await answer.text());
  setLink(true);
  const chunks = answer.body.pipeThrough(new TextDecoderStream()).getReader();
  for (let rest = '', chunk = await chunks.read(); !chunk.done; chunk = await chunks.read()) {
    const lines = (rest + chunk.value).split('\n');
    rest = lines.pop();
    lines.forEach(read);
  }
}

onconnect = ({ ports: [tab] }) => {
  tabs.add(tab);
  tab.onmessage = () => tabs.delete(tab); // it is being closed
  tab.postMessage(hasHistory() ? { events, state, link, script } : { link, script });
};

setInterval(flush, 50);
function followForEver() {
  follow().catch(() => setLink(false)).then(() => setTimeout(followForEver, 500));
}
followForEver();
