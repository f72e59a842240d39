// The one way to the reader: verbs to it, and its record as it grows. Also what all parts share.

// The reader's answer; throws an Error with its words where it has none.
export async function tell(verb) {
  const answer = await fetch('tell', { method: 'POST', body: verb, keepalive: true });
  const text = (await answer.text()).trimEnd();
  if (!answer.ok) throw new Error(text);
  return text;
}

// The same for a control: what is wrong is shown. Verbs are carried out in the order in which they
// were asked for, but a slow one holds up the next only for a moment.
let before = Promise.resolve();
export async function act(verb) {
  const told = before.then(() => tell(verb)).catch((error) => error);
  const moment = before.then(() => new Promise((pass) => { setTimeout(pass, 500); }));
  before = Promise.race([told, moment]);
  const answer = await told;
  at('trouble').textContent = answer.message ?? '';
  return answer;
}

export const quoted = (text) => `"${text.replace(/[\\"]/g, '\\$&')}"`;

function entry(line) {
  const [, time, agent, kind, text] = /^(\S+) (\S+) (\S+) ?(.*)$/s.exec(line) ?? [];
  return { time: Number(time), agent, kind, text };
}

// Hands over the record. `begins` comes before the first entries, and anew when the link was cut;
// `ends` when the reader is gone, for good: another one has another address. What happened before
// the link began is told too, but is not `isNew`.
export async function follow({ begins, entries, ends }) {
  const last = await tell('events 1').then(entry, ends);
  if (!last) return;
  begins();
  const source = new EventSource('record');
  source.onmessage = ({ data }) => entries(data.split('\n').map(entry)
    .map((each) => ({ ...each, isNew: !(each.time <= last.time) })));
  source.onerror = () => {
    source.close();
    setTimeout(follow, 500, { begins, entries, ends });
  };
}

export const at = (id) => document.getElementById(id);

export function element(name, properties, ...children) {
  const made = Object.assign(document.createElement(name), properties);
  made.append(...children);
  return made;
}

// Adds rows to a log and drops the oldest beyond 2000; stays at its end unless scrolled away.
export function append(log, rows) {
  log.onscroll ??= () => {
    log.isAway = log.scrollTop + log.clientHeight < log.scrollHeight - 20;
  };
  log.append(...rows);
  while (log.children.length > 2000) log.firstChild.remove();
  if (!log.isAway) log.scrollTop = log.scrollHeight;
}
