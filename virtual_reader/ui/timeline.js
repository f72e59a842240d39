// The last 30 seconds as lanes. A mark shows its event to the pointer.
import { at, element } from './page.js';

const lanes = { led: 0, beep: 1, card: 2, call: 3, enter: 3, fault: 3 };
const marks = []; // the last 300
const open = {}; // marks that have no end yet: the LED, calls that wait
let now = 0;

function take({ kind, time, text, agent, name, color, length, beeps, ms = 0 }) {
  const key = { led: 'led', unplugged: 'led', enter: `${agent} ${name}`, call: `${agent} ${name}` }[kind];
  if (open[key]) open[key].end = time;
  const hasWaited = kind === 'call' && open[key];
  delete open[key];
  if (lanes[kind] === undefined || hasWaited) return;
  const mark = { lane: lanes[kind], start: time, end: time, type: color ?? length ?? kind,
    title: `${time.toFixed(3)} s: ${text}` };
  if (kind === 'beep') mark.end = time + beeps * (length === 'long' ? 0.6 : 0.1);
  if (kind === 'call') mark.start = time - ms / 1000;
  if (kind === 'led' || kind === 'enter') {
    mark.end = Infinity;
    open[key] = mark;
  }
  marks.push(mark);
}

export function add(events) {
  events.forEach(take);
  now = events.at(-1)?.time ?? now;
  marks.splice(0, marks.length - 300);
  if (!events.length || at('lanes').matches(':hover')) return; // it stands still under the pointer
  const start = Math.max(now - 30, Math.min(now - 1, marks[0]?.start ?? now));
  const place = (time) => Math.min(100, Math.max(0, (time - start) / (now - start) * 100));
  at('lanes').replaceChildren(...marks.filter(({ end }) => end >= start).map((mark) => {
    const made = element('i', { className: mark.type, title: mark.title });
    made.style.top = `${mark.lane * 18 + 2}px`;
    made.style.left = `${place(mark.start)}%`;
    made.style.width = `${place(mark.end) - place(mark.start)}%`;
    return made;
  }));
  at('times').replaceChildren(element('span', {}, `${start.toFixed(1)} s`), element('span', {}, `${now.toFixed(1)} s`));
}
