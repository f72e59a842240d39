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

// What stays is not written again: it would be announced again.
function write(id, text) {
  if (at(id).textContent !== text) at(id).textContent = text;
}

export function draw(state) {
  const { is_plugged: isPlugged, part, led, held, queued, more_queued: more, agents, refused, calls,
    faults } = state;
  const agentTexts = agents.map(({ number, holds_reader: isHolder }) => `${number}, ${isHolder ? 'connected' : 'waiting'}`);
  const cardTexts = [held && `${held} held`, queued.length && `${queued.length + more} to come`];
  at('reader').dataset.led = led;
  write('led', { auto: 'automatic', dark: 'dark, unplugged' }[led] ?? led);
  write('beeps', `${beeps.short} short, ${beeps.long} long`);
  write('card', cardTexts.filter(Boolean).join(', ') || 'none');
  write('agent', agentTexts.join('; ') || (refused.length ? `refused: ${refused.at(-1).why}` : 'none'));
  write('part', part ?? '');
  write('alarm', calls.length ? `${calls[0].name} ${calls[0].state}`
    : faults.length ? `${faults.length} fault${faults.length > 1 ? 's' : ''} armed` : '');
  write('cable', isPlugged ? 'Unplug' : 'Plug in');
  at('shown').classList.toggle('held', Boolean(held));
  if (held) write('shown', held);
}

at('cable').onclick = ({ target }) => act(target.textContent === 'Unplug' ? 'unplug' : 'plug', target);
