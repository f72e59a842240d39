// The reader. How it stands is what `show` says, which is asked whenever something has happened.
import { act, at, element, tell } from './link.js';

let isAsking = false;
let askAgain = false;
let shownFaults = '';

async function look() {
  askAgain = isAsking;
  if (isAsking) return;
  isAsking = true;
  await tell('show').then(draw, () => {}); // that it has ended is told by the record's end
  isAsking = false;
  if (askAgain) setTimeout(look, 50);
}

function draw(answer) {
  const lines = answer.split('\n');
  const after = (start) => lines.find((line) => line.startsWith(start))?.slice(start.length);
  const isPlugged = lines.includes('plugged in');
  const led = after('led ');
  const held = after('card held ');
  const queued = lines.filter((line) => line.startsWith('card queued ')).length;
  at('reader').dataset.led = led;
  at('led').textContent = { own: 'the reader’s own', dark: 'dark, unplugged' }[led] ?? led;
  at('beeps').textContent = after('beeps ');
  at('part').textContent = after('part ').replace(/^"(.*)"$/, '$1');
  at('card').textContent =
    [held && `${held} held`, queued && `${queued} to come`].filter(Boolean).join(', ') || 'none';
  at('agent').textContent =
    lines.find((line) => /^(agent \d|no agent)/.test(line)).replace(/, came.*/, '');
  at('cable').ariaChecked = isPlugged;
  at('cable').lastChild.textContent = isPlugged ? 'pull out' : 'plug in';
  at('shown').classList.toggle('held', Boolean(held));
  if (held) at('shown').textContent = held;
  for (const { id, lastChild: hold } of at('cards').children) hold.ariaPressed = id === held;
  const waiting = lines.filter((line) => / (hangs|is delayed) since /.test(line))
    .map((line) => line.replace(/ since .*/, ''));
  const rules = lines.filter((line) => /^(fail|vanish|delay|hang|say) /.test(line));
  const faults = [...waiting, ...rules];
  if (faults.join() === shownFaults) return; // and whoever is about to press a button there can
  shownFaults = faults.join();
  at('faults').replaceChildren(...faults.map((line) => {
    const verb = waiting.includes(line) ? 'release' : `clear ${line.split(' ')[1]}`;
    return element('li', { className: verb }, line.slice(0, 200),
      element('button', { onclick: () => act(verb) }, verb));
  }));
}

// That card is there from then on; of those beyond the first three, the last six.
function addCard(given) {
  const [digits, bits = digits.length * 4] = given.toUpperCase().split('/');
  const id = `${digits}/${bits}`;
  if (at(id)) return;
  let press; // and hold; anything shorter is a click
  let wasHeld;
  const show = element('button', {
    title: 'Click to show, press to hold',
    onpointerdown({ button, pointerId }) {
      wasHeld = false;
      if (button !== 0) return;
      show.setPointerCapture(pointerId);
      press = setTimeout(() => {
        wasHeld = true;
        act(`card hold ${id}`);
      }, 350);
    },
    onlostpointercapture() {
      clearTimeout(press);
      if (wasHeld) act('card remove');
    },
    onclick: () => wasHeld || act(`card queue ${id}`),
    oncontextmenu: () => false,
  }, element('b', {}, digits), `${bits} bits`);
  const hold = element('button', { ariaLabel: `Hold ${id}`, ariaPressed: 'false',
    onclick: () => act(hold.ariaPressed === 'true' ? 'card remove' : `card hold ${id}`) }, 'Hold');
  show.style.setProperty('--hue', (at('cards').children.length * 137 + 215) % 360);
  at('cards').append(element('li', { id }, show, hold));
  if (at('cards').children.length > 9) at('cards').children[3].remove();
}

export const begin = look;

export function take(entries) {
  for (const { kind, text, isNew } of entries) {
    if (kind === 'verb' && /^card (queue|hold) /.test(text)) {
      text.split('#')[0].trim().split(/\s+/).slice(2).forEach(addCard);
    }
    if (!isNew || !/^(beep|card)$/.test(kind)) continue;
    if (kind === 'card') at('shown').textContent = text;
    at('device').className = '';
    at('device').getBoundingClientRect(); // so that the movement begins anew
    at('device').className = `has-${kind}`;
  }
  look();
}

['3AB1234/26', '0FAB1234/28', 'CDAB1234/32'].forEach(addCard);
at('cable').onclick = () => act(at('cable').ariaChecked === 'true' ? 'unplug' : 'plug');
at('own-card').onsubmit = (event) => {
  event.preventDefault();
  const { digits, bits } = event.target.elements;
  act(`card queue ${digits.value}${bits.value && '/'}${bits.value}`);
};
const fault = at('fault').elements;
at('fault').onsubmit = (event) => {
  event.preventDefault();
  const [what, call, number, when] = ['what', 'call', 'number', 'when'].map((n) => fault[n].value);
  act(`${what} ${call} ${{ fail: `error ${number}`, delay: number }[what] ?? ''} ${when}`);
};
fault.what.onchange = () => {
  fault.number.hidden = !['fail', 'delay'].includes(fault.what.value);
  fault.number.value = fault.what.value === 'delay' ? 1500 : 3;
};
const calls = (await tell('help CALL').catch(() => '')).split(/\s+/).slice(1);
fault.call.append(...calls.map((name) => new Option(name)));
fault.call.value = 'BeepNow';
