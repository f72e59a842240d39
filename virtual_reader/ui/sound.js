// The beeper, as far as the browser lets it sound: after the first click or key.
import { at } from './page.js';

let context;
let free = 0; // when the last beep ends, in the context's time

for (const gesture of ['pointerdown', 'keydown']) {
  addEventListener(gesture, () => {
    context ??= new AudioContext();
    context.resume().then(() => { at('silence').hidden = true; });
  }, { capture: true });
}

export function beep({ length, beeps }) {
  const canSound = at('sound').checked && !document.hidden && context?.state === 'running';
  if (!canSound || free > context.currentTime + 5) return;
  for (let i = 0; i < Math.min(beeps, 5); i += 1) {
    const start = Math.max(context.currentTime, free);
    const end = start + (length === 'long' ? 0.6 : 0.12);
    const tone = new OscillatorNode(context, { type: 'triangle', frequency: 2600 });
    const volume = new GainNode(context, { gain: 0.15 });
    tone.connect(volume).connect(context.destination);
    volume.gain.setTargetAtTime(0, end - 0.01, 0.003); // without a click
    tone.start(start);
    tone.stop(end + 0.02);
    free = end + 0.1;
  }
}
