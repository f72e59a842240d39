// The record as a list, with filters and a pause.
import { act, append, at, element } from './link.js';

const groups = { call: 'calls', enter: 'calls', says: 'calls', sent: 'application', received: 'application',
  command: 'application', agent: 'agents',
  verb: 'verbs', fault: 'faults' };
let waiting; // the rows that came since the pause

for (const group of ['effects', ...new Set(Object.values(groups))]) {
  const box = element('input', { type: 'checkbox', name: group, checked: true });
  box.onchange = () => at('entries').classList.toggle(`no-${group}`, !box.checked);
  at('pause').before(element('label', {}, box, group));
}
at('pause').onclick = () => {
  if (waiting) append(at('entries'), waiting);
  waiting = waiting ? undefined : [];
  at('pause').ariaPressed = Boolean(waiting);
  at('pause').textContent = 'Pause';
};

export function begin() {
  at('entries').replaceChildren();
  waiting &&= [];
}

export function take(entries) {
  const rows = entries.map(({ time, agent, kind, text }) =>
    element('li', { className: groups[kind] ?? 'effects' },
      element('time', {}, time.toFixed(3)), element('b', {}, kind),
      element('span', {}, text.slice(0, 2000)),
      element('small', { title: 'agent' }, agent === '-' ? '' : agent)));
  if (!waiting) {
    append(at('entries'), rows);
    return;
  }
  waiting = [...waiting, ...rows].slice(-2000);
  at('pause').textContent = `Go on (${waiting.length} new)`;
}

at('verb').onsubmit = async (event) => {
  event.preventDefault();
  const answer = await act(at('any').value);
  at('answer').textContent = answer.message ? '' : answer;
};
