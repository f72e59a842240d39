// Plays ../../conformance.txt, whose head explains its lines.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { describe, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { CardReader } from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';
import { folder, outcome, program, run, sections } from './player.mjs';

const LIMIT_MS = 20_000; // for what must come
const CLOSE_LIMIT_MS = 5000;
const AGENTS = {
  missing: `${folder}/missing`,
  denied: program('denied', 'exit 1', 0o600),
  silent: program('silent', 'exec sleep 600'),
  dies: program('dies', 'echo "no library here" >&2; exit 13'),
  global: program('global', 'echo "Reader: Global"; echo "no library here" >&2; exit 13'),
  leaves: program('leaves', 'sleep 20 & echo "Reader: Dev1-A"; exec sleep 600'),
  bundle: `${process.env.BUILD_DIR}/CardReaderAgent.app`,
};

// A list to which events are added, and from which they are taken in order.
class Events {
  list = [];
  #wake = () => {};

  add(event) {
    this.list.push(event);
    this.#wake();
  }

  // The next event, or undefined if there is none within the time.
  async next(limit_ms) {
    if (!this.list.length) {
      const timer = setTimeout(() => this.#wake(), limit_ms);
      await new Promise((wake) => (this.#wake = wake));
      clearTimeout(timer);
    }
    return this.list.shift();
  }
}

// Whether "NAME: PART" or "NAME PART" matches what has a name and words.
const matches = (name, part, [gotName, words]) => name === gotName && words.includes(part);

async function play(lines) {
  const virtual = await VirtualReader.start();
  const [events, logs, commands, pids] = [new Events(), new Events(), [], new Set()];
  const options = { env: virtual.env, stderr: 'ignore' };
  let path = process.env.AGENT;
  let reader, background;

  const expect = (isExpected, { number, line }, got = 'nothing') =>
    assert.ok(isExpected, `conformance.txt:${number}: expected ${line}, got ${got}`);
  const steps = {
    option(name, ...words) {
      options[name] = Number(words[0]);
      if (name !== 'onConnect') return;
      options.onConnect = async (reader, { signal }) => {
        for (const command of words.join(' ').split('; ')) {
          if (command.startsWith('pause')) await sleep(Number(command.slice(6)), null, { signal });
          else await run(reader, command, signal);
        }
      };
    },
    agent: (kind) => (path = AGENTS[kind]),
    '!': (...words) => virtual.execute(words.join(' ')),
    start() {
      reader = new CardReader(path, options);
      const add = (name, words) => {
        if (reader.pid) pids.add(reader.pid);
        events.add([name, words ?? '']);
      };
      reader.on('state', (state, previous, reason) => add(`state ${state}`, reason));
      for (const name of ['card', 'cardRemoved']) reader.on(name, (id) => add(`${name} ${id}`));
      reader.on('log', (text) => logs.add(['log', text]));
      reader.start();
    },
    '>'(...words) {
      const abort = new AbortController();
      commands.push({ abort, outcome: outcome(run(reader, words.join(' '), abort.signal)) });
    },
    cancel: () => commands[0].abort.abort(),
    async '='(line, name, ...words) {
      const late = sleep(LIMIT_MS, ['nothing', ''], { ref: false });
      const got = await Promise.race([commands.shift().outcome, late]);
      const text = words.join(' ');
      expect(name === 'ok' ? got.join() === `ok,${text}` : matches(name, text, got), line, got);
    },
    async '<'(line, name, ...words) {
      const text = words.join(' ');
      let got;
      if (name === 'log') {
        do got = await logs.next(LIMIT_MS);
        while (got && !matches('log', text, got));
        return expect(got, line, got);
      }
      const [event, part = ''] = `${name} ${text}`.split(': ');
      got = await events.next(LIMIT_MS);
      expect(got && matches(event, part, got), line, got);
    },
    every(ms, ...words) {
      background = setInterval(() => outcome(run(reader, words.join(' '))), Number(ms));
    },
    reason(line, ...words) {
      const isExpected = words.length ? reader.reason?.includes(words.join(' ')) : !reader.reason;
      expect(isExpected, line, reader.reason);
    },
    kill: () => process.kill(reader.pid, 'SIGKILL'),
    stop: () => process.kill(reader.pid, 'SIGSTOP'),
    suspend(ms) {
      const pids = `${reader.pid} ${process.pid}`;
      spawn('sh', ['-c', `sleep ${ms / 1000}; kill -CONT ${pids}`], { stdio: 'ignore' });
      process.kill(reader.pid, 'SIGSTOP');
      process.kill(process.pid, 'SIGSTOP');
    },
    async quiet(line, ms) {
      const got = await events.next(Number(ms));
      expect(!got, line, got);
    },
    async close() {
      const started = performance.now();
      await reader.close();
      assert.ok(performance.now() - started < CLOSE_LIMIT_MS);
    },
  };

  try {
    for (const line of lines) {
      const [word, ...words] = line.line.split(' ');
      if (['=', '<', 'reason', 'quiet'].includes(word)) words.unshift(line);
      await steps[word](...words);
    }
    assert.deepEqual([commands.length, events.list], [0, []], 'outcomes or events are left over');
  } finally {
    clearInterval(background);
    if (reader?.pid) pids.add(reader.pid);
    await reader?.close();
    await virtual.close();
  }
  for (const pid of pids) assert.throws(() => process.kill(pid, 0), { code: 'ESRCH' });
}

const cases = sections('conformance.txt').map(({ name, lines }) => {
  const isAlone = lines.some(({ line }) => line.startsWith('suspend'));
  return { isAlone, add: () => test(name, { timeout: 60_000 }, () => play(lines)) };
});
describe('conformance', { concurrency: 8 }, () => cases.forEach((c) => c.isAlone || c.add()));
describe('conformance, one by one', () => cases.forEach((c) => c.isAlone && c.add()));
