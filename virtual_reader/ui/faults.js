// Faults that are armed, and calls that wait.
import { act, execute } from './verbs.js';
import { at, element, remove } from './page.js';

const fields = at('fault').elements;

export function draw({ calls, faults }) {
  const rows = new Map([
    ...calls.map(({ agent, name, state }) => [`release ${agent} ${name}`,
      `${name} of agent ${agent} ${state === 'hangs' ? 'hangs' : 'is delayed'}`]),
    ...faults.map(({ id, text }) => [`clear ${id}`, text]),
  ]);
  // Rows that stay are not touched: somebody may be about to press their buttons.
  for (const row of [...at('faults').children]) {
    const text = rows.get(row.dataset.key);
    if (text) row.firstChild.textContent = text;
    else remove(row, fields.call);
    rows.delete(row.dataset.key);
  }
  for (const [key, text] of rows) {
    const word = key.split(' ')[0];
    const verb = word === 'release' ? word : key;
    const button = element('button', { ariaLabel: `${word} ${text}`, onclick: () => act(verb, button) }, word);
    const row = element('li', { className: word }, element('span', {}, text), button);
    row.dataset.key = key;
    at('faults').append(row);
  }
}

at('fault').onsubmit = (event) => {
  event.preventDefault();
  act(fields.what.value.replace('CALL', fields.call.value), event.target);
};
execute('help CALL').then((answer) => {
  fields.call.append(...answer.split(/\s+/).slice(1).map((name) => new Option(name)));
  fields.call.value = 'BeepNow';
}, () => {}); // it has ended, which the link shows
