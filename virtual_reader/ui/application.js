// The application's lines and, if it is an agent, commands for it.
import { act, quoted } from './verbs.js';
import { append, at, element, rowMaker } from './page.js';

const commands = {
  Ping: 'Global:Ping hello', Beep: 'Beep short 1', 'Beep twice': 'Beep short 2',
  'Beep long': 'Beep long 1', Red: 'SetLED red', Green: 'SetLED green', Amber: 'SetLED amber',
  Off: 'SetLED off', Automatic: 'ClearLED', Reset: 'ResetConfig',
};
const [buttons, form] = at('commands').children;

const send = (command, control) => act(`send ${quoted(command)}`, control);

buttons.append(...Object.entries(commands).map(([name, command]) => element('button',
  { title: command, onclick: ({ target }) => send(command, target) }, name)));

const rows = rowMaker(({ kind, line }, count) => {
  const word = kind === 'received' ? /^(Ok|Error|Card|Reader)(?=:)/.exec(line)?.[0] : kind;
  return element('li', { className: word ?? '' }, line.slice(0, 2000), count);
});

export function add(events) {
  const lines = events.filter(({ kind }) => kind === 'sent' || kind === 'received');
  if (lines.length) at('application').hidden = false;
  append(at('lines'), rows(lines));
}

export function draw({ command }) {
  if (command) at('application').hidden = false;
  at('commands').hidden = !command?.is_agent;
}

form.onsubmit = (event) => {
  event.preventDefault();
  send(at('command').value, form);
  at('command').select();
};
