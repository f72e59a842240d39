// Cards to show and to hold.
import { act } from './verbs.js';
import { at, element, remove } from './page.js';

// That card is there from then on; of those beyond the first three, the last six.
function addCard(given) {
  const [digits, bits = digits.length * 4] = given.toUpperCase().split('/');
  const id = `${digits}/${bits}`;
  if (at(id)) return;
  const show = element('button', { title: 'Show once', onclick: () => act(`card queue ${id}`, show) },
    element('b', {}, digits), ` ${bits} bits`);
  const hold = element('button', { ariaLabel: `Hold ${id}`, ariaPressed: 'false',
    onclick: () => act(hold.ariaPressed === 'true' ? 'card remove' : `card hold ${id}`, hold) }, 'Hold');
  show.style.setProperty('--hue', (at('cards').children.length * 137 + 215) % 360);
  at('cards').append(element('li', { id }, show, hold));
  if (at('cards').children.length > 9) remove(at('cards').children[3], show);
}

export function add(events) {
  for (const { verb } of events) {
    if (!/^card (queue|hold) /.test(verb)) continue;
    verb.split('#')[0].trim().split(/\s+/).slice(2).forEach(addCard);
  }
}

export function draw({ held }) {
  for (const { id, lastChild: hold } of at('cards').children) hold.ariaPressed = id === held;
}

['3AB1234/26', '0FAB1234/28', 'CDAB1234/32'].forEach(addCard);
at('own-card').onsubmit = (event) => {
  event.preventDefault();
  act(`card queue ${at('another').value}`, event.target);
};
