// What the parts of the page share.

export const at = (id) => document.getElementById(id);

export function element(name, properties, ...children) {
  const made = Object.assign(document.createElement(name), properties);
  made.append(...children);
  return made;
}

// Removes a row. If it has the focus, that goes to the fallback.
export function remove(row, fallback) {
  if (row.contains(document.activeElement)) fallback.focus();
  row.remove();
}

// Makes a function that makes rows of events, one of equal events that follow each other; `make`
// gets the event and the place where their number is shown.
export function rowMaker(make) {
  let last = {};
  return (events) => events.flatMap(({ ...event }) => {
    if (event.text === last.text && event.agent === last.agent) {
      last.repeats += event.repeats;
    } else {
      last = Object.assign(event, { count: element('small') });
    }
    if (last.repeats > 1) last.count.textContent = ` ×${last.repeats}`;
    return last === event ? [make(event, last.count)] : [];
  });
}

// Adds rows to a log and drops the oldest beyond 2000; stays at its end unless scrolled away.
export function append(log, rows) {
  const { scrollTop, scrollHeight, clientHeight, end = 0 } = log;
  const isAtEnd = scrollTop > Math.min(end, scrollHeight - clientHeight) - 20;
  log.append(...rows.slice(-2000));
  while (log.children.length > 2000) log.firstChild.remove();
  if (!rows.length || !isAtEnd) return;
  log.scrollTop = log.scrollHeight;
  log.end = log.scrollTop; // which a change of the window's size does not move
}
