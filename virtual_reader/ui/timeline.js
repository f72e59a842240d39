// The last seconds as lanes. A mark shows its event to the pointer.
const lanes = { led: 0, beep: 1, card: 2, call: 3, enter: 3, fault: 3 };
const seconds = 30;
const picture = document.querySelector('#timeline svg');
const marks = []; // the last 300, in the order of their events
let now = 0;
const open = {}; // marks that have no end yet: the LED, the held card, calls that wait

function svg(name, attributes, text = '') {
  const made = document.createElementNS('http://www.w3.org/2000/svg', name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  made.textContent = text;
  return made;
}

function close(key, time) {
  if (open[key]) open[key].end = time;
  delete open[key];
}

function mark({ kind, time, text }, start, end, type, key) {
  if (key) close(key, time);
  const made = { lane: lanes[kind], start, end, type, text: `${time.toFixed(3)} s: ${text}` };
  marks.push(made);
  if (key) open[key] = made;
}

function take(event) {
  const { kind, time, verb = '' } = event;
  const call = `${event.agent} ${event.name}`;
  if (kind === 'led') mark(event, time, Infinity, event.color, 'led');
  if (kind === 'unplugged') close('led', time);
  if (kind === 'beep') mark(event, time, time + event.beeps * (event.length === 'long' ? 0.6 : 0.1), event.length);
  if (kind === 'card') mark(event, time, time, 'card');
  if (verb.startsWith('card hold')) mark({ ...event, kind: 'card' }, time, Infinity, 'held', 'held');
  if (verb.startsWith('card remove')) close('held', time);
  if (kind === 'enter') mark(event, time, Infinity, 'waits', call);
  if (kind === 'fault') mark(event, time, time, 'fault');
  if (kind === 'call' && open[call]) close(call, time);
  else if (kind === 'call') mark(event, time - (event.ms ?? 0) / 1000, time, 'call');
}

export function add(events) {
  for (const event of events) take(event);
  now = events.at(-1)?.time ?? now;
  marks.splice(0, marks.length - 300);
  if (!events.length || picture.matches(':hover')) return; // it stands still under the pointer
  const start = Math.max(now - seconds, Math.min(now - 1, marks[0]?.start ?? now));
  const place = (time) => Math.min(100, Math.max(0, (time - start) / (now - start) * 100));
  const drawn = marks.filter(({ end }) => end >= start).map((each) => {
    const [from, to] = [place(each.start), place(each.end)];
    const made = svg('rect', { x: `${Math.min(from, 99.4)}%`, y: each.lane * 18 + 2, height: 13, rx: 2,
      width: `${Math.max(to - from, 0.6)}%`, class: each.type });
    made.append(svg('title', {}, each.text));
    return made;
  });
  picture.replaceChildren(...drawn, svg('text', { x: 0, y: 87 }, `${start.toFixed(1)} s`),
    svg('text', { x: '100%', y: 87, 'text-anchor': 'end' }, `${now.toFixed(1)} s`));
}
