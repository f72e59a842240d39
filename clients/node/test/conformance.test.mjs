// Plays ../../conformance.txt, whose beginning says what its lines mean.

import assert from 'node:assert/strict';
import { chmodSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { describe, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { CardReader } from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';

const PATIENCE = 20_000; // ms for what must come
const folder = mkdtempSync(`${tmpdir()}/`);
const program = (name, mode, text) => {
  writeFileSync(`${folder}/${name}`, `#!/bin/sh\n${text}\n`);
  chmodSync(`${folder}/${name}`, mode);
  return `${folder}/${name}`;
};
const AGENTS = {
  missing: `${folder}/missing`,
  denied: program('denied', 0o600, 'exit 1'),
  silent: program('silent', 0o700, 'exec sleep 600'),
  dies: program('dies', 0o700, 'echo "no library here" >&2; exit 13'),
  bundle: `${process.env.BUILD_DIR}/CardReaderAgent.app`,
};

// "tsCfgFlags.bSndOnRx=1" and more as { tsCfgFlags: { bSndOnRx: 1 } }
function settings(words) {
  const all = {};
  for (const word of words) {
    const [, type, name, value] = /^(.+)\.(.+)=(.+)$/.exec(word);
    (all[type] ??= {})[name] = Number(value);
  }
  return all;
}

function begin(reader, line, signal) {
  const [, text, timeout] = /^(.*?)(?: timeout (\d+))?$/.exec(line);
  const [name, ...words] = text.split(' ');
  const limits = { signal, ...(timeout && { timeout: Number(timeout) }) };
  const commands = {
    ping: () => reader.ping(words.join(' '), limits),
    beep: () => reader.beep(Number(words[0]), words[1], limits),
    led: () => reader.setLed(words[0], limits),
    clearLed: () => reader.clearLed(limits),
    configure: () => reader.configure(settings(words), limits),
    resetConfig: () => reader.resetConfig(limits),
    waitForReader: () => reader.waitForReader(limits),
  };
  return commands[name]();
}

async function outcome(command) {
  try {
    return { name: 'ok', words: (await command) ?? '' };
  } catch (error) {
    if (error.name === 'AbortError') return { name: 'cancelled', words: '' };
    const words = error.names?.join(' ') ?? error.number ?? error.message;
    return { name: error.name, words: `${words}` };
  }
}

// A list to which events are added, and from which they are taken in turn once they have come.
class Told {
  list = [];
  wake = () => {};

  add(...event) {
    this.list.push(event);
    this.wake();
  }

  async next(limit) {
    if (!this.list.length) {
      const timer = setTimeout(() => this.wake(), limit);
      await new Promise((wake) => (this.wake = wake));
      clearTimeout(timer);
    }
    return this.list.shift();
  }
}

async function play(lines) {
  const virtual = await VirtualReader.start();
  const events = new Told();
  const logs = new Told();
  const commands = [];
  const pids = new Set();
  const options = { env: virtual.env, stderr: 'ignore' };
  let path = process.env.AGENT;
  let reader;

  const same = (told, came, words, message) => {
    assert.ok(came?.[0] === told && `${came[1] ?? ''}`.includes(words), message(came?.join(': ')));
  };
  const carryOut = async (mark, text, line) => {
    const message = (came) => `${line} is told, and came: ${came ?? 'nothing'}`;
    const [word, ...rest] = text.split(' ');
    if (mark === 'option' && word === 'onConnect') {
      options.onConnect = (reader) => begin(reader, rest.join(' '));
    } else if (mark === 'option') options[word] = Number(rest[0]) >= 0 ? Number(rest[0]) : rest[0];
    else if (mark === 'agent') path = AGENTS[text];
    else if (mark === '!') await virtual.execute(text);
    else if (mark === 'start') {
      reader = new CardReader(path, options);
      for (const name of ['state', 'card', 'cardRemoved', 'hang']) {
        reader.on(name, (word, _, reason) => {
          if (reader.pid) pids.add(reader.pid);
          events.add(name === 'state' ? `state ${word}` : [name, word].join(' ').trim(), reason);
        });
      }
      reader.on('log', (text) => logs.add('log', text));
      reader.start();
    } else if (mark === '>') {
      const abort = new AbortController();
      commands.push({ abort, outcome: outcome(begin(reader, text, abort.signal)) });
    } else if (mark === 'cancel') commands[0].abort.abort();
    else if (mark === '=') {
      const late = sleep(PATIENCE, { name: 'nothing', words: '' }, { ref: false });
      const { name, words } = await Promise.race([commands.shift().outcome, late]);
      same(word, [name, words], rest.join(' '), message);
      if (word === 'ok') assert.equal(words, rest.join(' '));
    } else if (mark === '<' && word === 'log') {
      let came;
      do came = await logs.next(PATIENCE);
      while (came && !came[1].includes(rest.join(' ')));
      assert.ok(came, message());
    } else if (mark === '<') {
      const [, event, words = ''] = /^(.*?)(?:: (.*))?$/.exec(text);
      same(event, await events.next(PATIENCE), words, message);
    } else if (mark === 'quiet') {
      const came = await events.next(Number(text));
      assert.equal(came, undefined, message(came?.[0]));
    } else if (mark === 'close') await reader.close();
    else {
      const signal = { kill: 'SIGKILL', stop: 'SIGSTOP', continue: 'SIGCONT' }[mark];
      process.kill(reader.pid, signal);
    }
  };

  try {
    for (const { number, line } of lines) {
      const [, mark, text] = /^(\S+) ?(.*)$/.exec(line);
      await carryOut(mark, text, `conformance.txt:${number}: ${line}`);
    }
    assert.deepEqual([commands.length, events.list], [0, []], 'more came than is told');
  } finally {
    if (reader?.pid) pids.add(reader.pid);
    await reader?.close();
    await virtual.close();
  }
  for (const pid of pids) assert.throws(() => process.kill(pid, 0), { code: 'ESRCH' });
}

const situations = [];
readFileSync(new URL('../../conformance.txt', import.meta.url), 'utf8')
  .split('\n')
  .forEach((line, i) => {
    if (line.startsWith('## ')) situations.push({ name: line.slice(3), lines: [] });
    else if (line && !line.startsWith('#')) situations.at(-1).lines.push({ number: i + 1, line });
  });

describe('situations', { concurrency: 8 }, () => {
  for (const { name, lines } of situations) test(name, { timeout: 60_000 }, () => play(lines));
});
