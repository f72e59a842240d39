// What the players of conformance.txt and lines.txt share.

import { chmodSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';

export const folder = mkdtempSync(`${tmpdir()}/`);

// A shell script.
export function program(name, text, mode = 0o700) {
  writeFileSync(`${folder}/${name}`, `#!/bin/sh\n${text}\n`);
  chmodSync(`${folder}/${name}`, mode);
  return `${folder}/${name}`;
}

// The sections of a file: their names, and their lines with numbers.
export function sections(file) {
  const found = [];
  const lines = readFileSync(new URL(`../../${file}`, import.meta.url), 'utf8').split('\n');
  for (const [i, line] of lines.entries()) {
    if (line.startsWith('## ')) found.push({ name: line.slice(3), lines: [] });
    else if (line && !line.startsWith('#')) found.at(-1).lines.push({ number: i + 1, line });
  }
  return found;
}

// "tsCfgFlags.bSndOnRx=1" and more as { tsCfgFlags: { bSndOnRx: 1 } }
function settings(words) {
  const all = {};
  for (const word of words) {
    const [, type, name, value] = /^(.*)\.(.*)=(.+)$/s.exec(word);
    (all[type] ??= {})[name] = Number(value);
  }
  return all;
}

// Begins a command as the files have it. `decode` resolves escapes in its words.
export async function run(reader, line, signal, decode = (word) => word) {
  const [, text, timeout] = /^(.*?)(?: timeout (\S+))?$/s.exec(line);
  const [name, ...words] = text.split(' ').map(decode);
  const limits = { signal, ...(timeout && { timeout: Number(timeout) }) };
  const commands = {
    ping: () => reader.ping(words.join(' '), limits),
    beep: () => reader.beep({ count: Number(words[0]), length: words[1], ...limits }),
    led: () => reader.setLed(words[0], limits),
    clearLed: () => reader.clearLed(limits),
    configure: () => reader.configure(settings(words), limits),
    resetConfig: () => reader.resetConfig(limits),
    waitFor: () => reader.waitFor(words[0], limits),
    waitForConnection: async () => {
      const name = await reader.waitForConnection(limits);
      if (name !== reader.name) throw new Error(`not the reader's name: ${name}`);
    },
  };
  return await commands[name]();
}

// The outcome of a command, as [name, words].
export async function outcome(command) {
  try {
    return ['ok', (await command) ?? ''];
  } catch (error) {
    if (error.name === 'AbortError') return ['cancelled', ''];
    return [error.name, `${error.names?.join(' ') ?? error.number ?? error.message}`];
  }
}
