// The event log as a list with filters; verbs, and the session as a test.
import { act } from './verbs.js';
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

at('save').onclick = async ({ target }) => {
  const scenario = await act('scenario', target);
  if (!scenario) return;
  const file = new Blob([scenario, '\n'], { type: 'text/plain' });
  element('a', { href: URL.createObjectURL(file), download: 'session.txt' }).click();
};
