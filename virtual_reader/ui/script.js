// The script that is run, where it is, and the verdict.
import { at, element } from './page.js';

function point(number, className) {
  const line = at('script-lines').children[number - 1];
  if (!line || line.className === className) return;
  at('script-lines').querySelector(`.${className}`)?.classList.remove(className);
  line.className = className;
  line.scrollIntoView({ block: 'nearest' });
}

export function show(text) {
  const lines = text.split('\n').slice(0, 5000).map((line) => element('li', {}, line));
  at('script-lines').replaceChildren(...lines);
  at('script').hidden = false;
}

export function draw({ script }) {
  if (!script) return;
  at('script-title').textContent = script.path.split('/').at(-1);
  if (!at('verdict').textContent) point(script.line, 'current');
}

export function add(events) {
  const verdict = events.findLast(({ kind }) => kind === 'verdict');
  if (!verdict) return;
  at('verdict').textContent = verdict.text.replace('verdict ', '');
  at('verdict').className = verdict.verdict === 'PASSED' ? 'passed' : 'failed';
  if (verdict.line) point(verdict.line, 'failed');
}
