// The host: the agent's lines, and commands for it. Shown once there is one.
import { act, append, at, element, quoted } from './link.js';

const commands = {
  Ping: 'Global:Ping hello', Beep: 'Beep short 1', 'Beep twice': 'Beep short 2',
  'Beep long': 'Beep long 1', Red: 'SetLED red', Green: 'SetLED green', Amber: 'SetLED amber',
  Off: 'SetLED off', 'Its own': 'ClearLED', Reset: 'ResetConfig',
};
const send = (command) => act(`host ${quoted(command)}`);

at('commands').append(...Object.entries(commands).map(([name, command]) =>
  element('button', { title: command, onclick: () => send(command) }, name)));

export const begin = () => at('lines').replaceChildren();

export function take(entries) {
  const rows = entries.filter(({ kind }) => kind === 'host').map(({ text }) => {
    const [, mark, line] = /^([<>]) (.*)$/s.exec(text) ?? [null, '', text];
    const className = mark === '>' ? 'sent' : /^\w+(?=:)/.exec(line)?.[0] ?? '';
    return element('li', { className }, line.slice(0, 2000));
  });
  if (rows.length) at('host').hidden = false;
  append(at('lines'), rows);
}

at('line').onsubmit = (event) => {
  event.preventDefault();
  send(at('command').value);
  at('command').select();
};
