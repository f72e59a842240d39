// The event log as a list with filters; verbs, and the session as a test.
import { act, quoted } from './verbs.js';
import { append, at, element, rowMaker } from './page.js';

const groups = { call: 'calls', enter: 'calls', says: 'calls', sent: 'application',
  received: 'application', command: 'application', agent: 'agents', verb: 'verbs', fault: 'faults',
  verdict: 'verdict' };

for (const group of ['effects', 'calls', 'application', 'agents', 'verbs', 'faults']) {
  const box = element('input', { type: 'checkbox', name: group, checked: true });
  box.onchange = () => at('entries').classList.toggle(`no-${group}`, !box.checked);
  at('filters').append(element('label', {}, box, group));
}
const rowsOf = rowMaker(({ time, agent, kind, text }, count) =>
  element('li', { className: groups[kind] ?? 'effects' },
    element('time', {}, time.toFixed(3)), element('b', {}, kind),
    element('span', {}, text.slice(kind.length + 1, 2000), count),
    element('small', { title: 'agent' }, agent ?? '')));

export const add = (events) => append(at('entries'), rowsOf(events));

at('verb').onsubmit = async (event) => {
  event.preventDefault();
  at('answer').textContent = await act(at('any').value, event.target) ?? '';
};

// What was done to the reader, and expects what the application made of it.
function scenarioOf(events) {
  let last = Infinity;
  return events.flatMap(({ kind, text, verb, line, time }) => {
    const steps = [];
    if (verb && time - last > 1) steps.push(`wait ${Math.round((time - last) * 1000)}`);
    if (verb) steps.push(verb);
    if (kind === 'sent') steps.push(`send ${quoted(line.replace(/^Dev[^:]*:/, ''))}`);
    if (/^(connected|led|beep|config|reset)$/.test(kind)) steps.push(`expect ${text}`);
    if (/^received Reader: Dev/.test(text)) steps.push('expect received /^Reader: Dev/');
    if (steps.length) last = time;
    return steps;
  });
}

at('save').onclick = async ({ target }) => {
  const all = await act('events --json 1000000', target);
  if (!all) return;
  const lines = scenarioOf(all.split('\n').map((line) => JSON.parse(line)));
  const file = new Blob([lines.join('\n'), '\n'], { type: 'text/plain' });
  element('a', { href: URL.createObjectURL(file), download: 'session.txt' }).click();
};
