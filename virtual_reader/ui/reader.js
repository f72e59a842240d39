// The device and the facts beside it.
import { act } from './verbs.js';
import { at } from './page.js';

const beeps = { short: 0, long: 0 }; // as far back as the events are known

export function add(events) {
  for (const { kind, card, length, beeps: count, isNew } of events) {
    if (kind === 'beep') beeps[length] += count;
    if (!isNew || (kind !== 'beep' && kind !== 'card')) continue;
    if (card) at('shown').textContent = card;
    at('device').className = '';
    at('device').getBoundingClientRect(); // so that the movement begins again
    at('device').className = `has-${kind}`;
  }
}

export function draw(state) {
  const { is_plugged: isPlugged, part, led, held, queued, more_queued: more, agents, refused, calls,
    faults } = state;
  at('reader').dataset.led = led;
  at('led').textContent = { auto: 'automatic', dark: 'dark, unplugged' }[led] ?? led;
  at('beeps').textContent = `${beeps.short} short, ${beeps.long} long`;
  at('part').textContent = part ?? '';
  at('card').textContent = [held && `${held} held`,
    queued.length && `${queued.length + more} to come`].filter(Boolean).join(', ') || 'none';
  at('agent').textContent =
    agents.map((each) => `${each.number}${each.holds_reader ? ', connected' : ', waiting'}`).join('; ')
    || (refused.length ? `refused: ${refused.at(-1).why}` : 'none');
  at('alarm').textContent = calls.length ? `${calls[0].name} ${calls[0].state}`
    : faults.length ? `${faults.length} fault${faults.length > 1 ? 's' : ''} armed` : '';
  at('cable').textContent = isPlugged ? 'Unplug' : 'Plug in';
  at('shown').classList.toggle('held', Boolean(held));
  if (held) at('shown').textContent = held;
}

at('cable').onclick = ({ target }) => act(target.textContent === 'Unplug' ? 'unplug' : 'plug', target);
