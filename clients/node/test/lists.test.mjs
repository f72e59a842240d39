// Plays ../../conformance.txt and ../../lines.txt, whose heads explain their lines.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { describe, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import * as client from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';
import internals from '../reader.js';

const { CardReader } = client;
const LIMIT_MS = 20_000; // for what must come
const folder = mkdtempSync(`${tmpdir()}/`);
const script = (name, text, mode = 0o700) => {
  writeFileSync(`${folder}/${name}`, `#!/bin/sh\n${text}\n`, { mode });
  return `${folder}/${name}`;
};
const AGENTS = {
  missing: `${folder}/missing`,
  denied: script('denied', 'exit 1', 0o600),
  silent: script('silent', 'exec sleep 600'),
  dies: script('dies', 'echo "no library here" >&2; exit 13'),
  global: script('global', 'echo "Reader: Global"; echo "no library here" >&2; exit 13'),
  leaves: script('leaves', 'sleep 20 & echo "Reader: Dev1-A"; exec sleep 600'),
  bundle: `${process.env.BUILD_DIR}/CardReaderAgent.app`,
};

// The sections of a file: their names, and their lines with numbers.
function sections(file) {
  const found = [];
  const lines = readFileSync(new URL(`../../${file}`, import.meta.url), 'utf8').split('\n');
  for (const [i, line] of lines.entries()) {
    if (line.startsWith('## ')) found.push({ name: line.slice(3), lines: [] });
    else if (line && !line.startsWith('#')) found.at(-1).lines.push({ number: i + 1, line });
  }
  return found;
}

// Begins a command as the files have it. `decode` resolves escapes in its words.
async function run(reader, line, signal, decode = (word) => word) {
  const [, text, timeout] = /^(.*?)(?: timeout (\S+))?$/s.exec(line);
  const [name, ...words] = text.split(' ').map(decode);
  const limits = { signal, ...(timeout && { timeout: Number(timeout) }) };
  const configure = () => {
    const settings = {};
    for (const word of words) {
      const [, type, setting, value] = /^(.*)\.(.*)=(.+)$/s.exec(word);
      (settings[type] ??= {})[setting] = Number(value);
    }
    return reader.configure(settings, limits);
  };
  const waitForConnection = async () => assert.equal(await reader.waitForConnection(limits), reader.name);
  const ping = () => reader.ping(words.join(' '), limits);
  const beep = () => reader.beep({ count: Number(words[0]), length: words[1], ...limits });
  const led = () => reader.setLed(words[0], limits);
  const own = { ping, beep, led, configure, waitForConnection };
  return await (own[name] ? own[name]() : reader[name](...words, limits));
}

// The outcome of a command, as [name, words].
async function outcome(command) {
  try {
    return ['ok', (await command) ?? ''];
  } catch (error) {
    if (error.name === 'AbortError') return ['cancelled', ''];
    return [error.name, `${error.names?.join(' ') ?? error.number ?? error.message}`];
  }
}

function expect(name, words, got) {
  const isSame = got?.[0] === name && (name === 'ok' ? got[1] === words : got[1].includes(words));
  assert.ok(isSame, `expected ${name} ${words}, got ${got?.join(' ') ?? 'nothing'}`);
}

// The next of a list, to which others add; undefined if there is none within the time.
async function next(list, limit_ms = LIMIT_MS) {
  for (const end = performance.now() + limit_ms; !list.length && performance.now() < end; ) await sleep(2);
  return list.shift();
}

async function play(lines) {
  const virtual = await VirtualReader.start();
  const options = { env: virtual.env, stderr: 'ignore' };
  const [events, logs, commands, pids] = [[], [], [], new Set()];
  let path = process.env.AGENT;
  let reader, background;
  const onConnect = (list) => async (reader, { signal }) => {
    for (const command of list.split('; ')) {
      if (command.startsWith('pause')) await sleep(Number(command.slice(6)), null, { signal });
      else await run(reader, command, signal);
    }
  };
  const steps = {
    option: (value, name) => (options[name] = name === 'onConnect' ? onConnect(value) : Number(value)),
    agent: (kind) => (path = AGENTS[kind]),
    '!': (verb) => virtual.execute(verb),
    start() {
      reader = new CardReader(path, options);
      const add = (name, words) => pids.add(reader.pid) && events.push([name, words ?? '']);
      reader.on('state', (state, previous, reason) => add(`state ${state}`, reason));
      for (const name of ['card', 'cardRemoved']) reader.on(name, (id) => add(`${name} ${id}`));
      reader.on('log', (text) => logs.push(text));
      reader.start();
    },
    '>'(command) {
      const [abort, got] = [new AbortController(), []];
      outcome(run(reader, command, abort.signal)).then((outcome) => got.push(outcome));
      commands.push({ abort, got });
    },
    cancel: () => commands[0].abort.abort(),
    '=': async (words, name) => expect(name, words, await next(commands.shift().got)),
    async '<'(words, name) {
      const [event, part = ''] = `${name} ${words}`.split(': ');
      if (name !== 'log') return expect(event, part, await next(events));
      for (let got = ''; !got.includes(words); ) assert.notEqual((got = await next(logs)), undefined);
    },
    every: (command, ms) => (background = setInterval(() => outcome(run(reader, command)), Number(ms))),
    reason: (part) => assert.ok(part ? reader.reason.includes(part) : !reader.reason, reader.reason),
    kill: () => process.kill(reader.pid, 'SIGKILL'),
    stop: () => process.kill(reader.pid, 'SIGSTOP'),
    suspend(ms) {
      const both = [reader.pid, process.pid];
      spawn('sh', ['-c', `sleep ${ms / 1000}; kill -CONT ${both.join(' ')}`], { stdio: 'ignore' });
      for (const pid of both) process.kill(pid, 'SIGSTOP');
    },
    quiet: async (ms) => assert.equal(await next(events, Number(ms)), undefined),
    async close() {
      const started = performance.now();
      await reader.close();
      assert.ok(performance.now() - started < 5000);
    },
  };
  const NAMED = ['option', '=', '<', 'every']; // a name, then words
  try {
    for (const { number, line } of lines) {
      const [, word, rest] = /^(\S+) ?(.*)/.exec(line);
      const [, name, words] = NAMED.includes(word) ? /^(\S+) ?(.*)/.exec(rest) : [null, null, rest];
      await Promise.resolve(steps[word](words, name)).catch((error) => {
        throw new Error(`conformance.txt:${number}: ${line}: ${error.message}`);
      });
    }
    assert.deepEqual([commands.length, events], [0, []], 'outcomes or events are left over');
  } finally {
    clearInterval(background);
    pids.add(reader?.pid);
    await reader?.close();
    await virtual.close();
  }
  pids.delete(undefined);
  for (const pid of pids) assert.throws(() => process.kill(pid, 0), { code: 'ESRCH' });
}

const cases = sections('conformance.txt');
const isAlone = ({ lines }) => lines.some(({ line }) => line.startsWith('suspend'));
const add = ({ name, lines }) => test(name, { timeout: 60_000 }, () => play(lines));
describe('conformance', { concurrency: 8 }, () => cases.filter((c) => !isAlone(c)).forEach(add));
describe('conformance, one by one', () => cases.filter(isAlone).forEach(add));

const pair = ({ line }) => /^(.*?) =>(?: (.*))?$/.exec(line).slice(1).map((text = '') => text);
const lists = Object.fromEntries(sections('lines.txt').map(({ name, lines }) => [name, lines.map(pair)]));
const ESCAPES = { '\\n': '\n', '\\0': '\0', '\\s': ' ' };
// A byte that is no UTF-8 is a lone surrogate, as in the client's texts.
const unescape = (escape, hex) => ESCAPES[escape] ?? String.fromCharCode(0xdc00 + parseInt(hex, 16));
const decode = (text) => text.replace(/\\(?:[n0s]|x(..))/g, unescape);
const toByte = (c) => (/[\udc80-\udcff]/.test(c) ? Buffer.of(c.charCodeAt(0) & 0xff) : Buffer.from(c));

// A reader whose agent answers the first ping, prints `lines`, and gives one of `answers` to each command.
function create(t, lines, answers = []) {
  const write = (name, texts) => {
    const bytes = [...texts.map((text) => `${decode(text)}\n`).join('')].map(toByte);
    writeFileSync(`${folder}/${name}-${t.name}`, Buffer.concat(bytes));
    return `${folder}/${name}-${t.name}`;
  };
  const agent = `read -r ping; read -r token; echo Ok:; echo "Ok: \${token#Global:Ping}"
    cat ${write('lines', lines)}
    exec 3<${write('answers', answers.map((text) => text.replaceAll('\\n', '|')))}
    while IFS= read -r line; do
      case $line in
        Global:Ping*) printf 'Ok: %s\\n' "\${line#Global:Ping}" ;;
        *) IFS= read -r answer <&3; printf '%s\\n' "$answer" | tr '|' '\\n' ;;
      esac
    done`;
  const sent = [];
  const trace = (time, direction, line) => direction === '>' && sent.push(line);
  const reader = new CardReader(script(t.name, agent), { cardRemovedAfter: 3_600_000, trace });
  t.after(() => reader.close());
  reader.start();
  return { reader, sent };
}

test('lines', async (t) => {
  const { reader } = create(t, lists.lines.map(([line]) => line));
  const got = [];
  for (const type of ['card', 'poll', 'cardRemoved', 'log']) reader.on(type, (text) => got.push(`${type} ${text}`));
  while (reader.name !== 'Dev10-caf\udce9') await reader.waitForConnection();
  const expected = lists.lines.flatMap(([, right]) => (right ? right.split('; ') : []));
  assert.deepEqual(got, expected.map(decode));
});

test('answers', async (t) => {
  const { reader } = create(t, ['Reader: Dev1-A'], lists.answers.map(([answer]) => answer));
  await reader.waitFor('ready');
  for (const [, expected] of lists.answers) {
    const [name, ...words] = expected.split(' ');
    expect(name, words.join(' '), await outcome(reader.clearLed()));
  }
});

test('arguments', async (t) => {
  const { reader, sent } = create(t, ['Reader: Dev1-A']);
  await reader.waitFor('ready');
  const before = sent.length;
  for (const [left, part] of lists.arguments) {
    const isExpected = ({ name, message }) => /^(Type|Range)Error$/.test(name) && message.includes(part);
    await assert.rejects(run(reader, left, undefined, decode), isExpected, left);
  }
  await assert.rejects(reader.beep({ count: 2, timout: 5 }), /^TypeError: unknown option 'timout'$/);
  assert.equal(sent.length, before);
});

test('options, errors, start errors', () => {
  const values = { infinity: Infinity, nan: NaN, none: null, true: true, '[1]': [1] };
  for (const [left, right] of [...lists.options, ['toString 1', 'unknown'], ['env [1]', 'object']]) {
    const [name, value] = left.split(' ');
    const options = { [name]: value in values ? values[value] : JSON.parse(value) };
    const create = () => new CardReader('agent', options);
    if (right === 'ok') create();
    else assert.throws(create, ({ message }) => message.includes(name) && message.includes(right), left);
  }
  for (const [name, code] of lists.errors) {
    const { prototype } = client[name];
    assert.deepEqual([prototype.name, prototype.code], [name, code]);
    assert.ok(prototype instanceof client.CardReaderError);
  }
  for (const [code, state] of lists['start errors']) {
    assert.equal(internals.RETRYABLE.includes(code) ? 'restarting' : 'failed', state, code);
  }
});
