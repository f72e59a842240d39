// Plays ../../lines.txt, whose head explains its lines.

import assert from 'node:assert/strict';
import { writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { test } from 'node:test';
import * as client from 'card-reader-agent';
import { folder, outcome, program, run, sections } from './player.mjs';

const { CardReader } = client;
const { RETRYABLE } = createRequire(import.meta.url)('../reader.js');
const ESCAPES = { '\\n': '\n', '\\0': '\0', '\\s': ' ' };
// A byte that is no UTF-8 is a lone surrogate, as in the client's texts.
const decode = (text) =>
  text.replace(/\\(?:[n0s]|x(..))/g, (escape, hex) =>
    hex ? String.fromCharCode(0xdc00 + parseInt(hex, 16)) : ESCAPES[escape],
  );
const toByte = (c) => (/[\udc80-\udcff]/.test(c) ? Buffer.of(c.charCodeAt(0) & 0xff) : Buffer.from(c));
const toBytes = (text) => Buffer.concat([...text].map(toByte));
const lists = Object.fromEntries(
  sections('lines.txt').map(({ name, lines }) => [
    name,
    lines.map(({ line }) => /^(.*?) =>(?: (.*))?$/.exec(line).slice(1).map((text = '') => text)),
  ]),
);

// A reader whose agent answers the first ping, prints `lines`, and answers each reader's command with one of `answers`.
function create(t, lines, answers = []) {
  const write = (name, texts) => {
    const path = `${folder}/${name}-${t.name}`;
    writeFileSync(path, toBytes(texts.map((text) => `${decode(text)}\n`).join('')));
    return path;
  };
  const path = program(
    t.name,
    `read -r ping; read -r token; echo Ok:; echo "Ok: \${token#Global:Ping}"
    cat ${write('lines', lines)}
    exec 3<${write('answers', answers.map((text) => text.replaceAll('\\n', '|')))}
    while IFS= read -r line; do
      case $line in
        Global:Ping*) printf 'Ok: %s\\n' "\${line#Global:Ping}" ;;
        *) IFS= read -r answer <&3; printf '%s\\n' "$answer" | tr '|' '\\n' ;;
      esac
    done`,
  );
  const sent = [];
  const trace = (time, direction, line) => direction === '>' && sent.push(line);
  const reader = new CardReader(path, { cardRemovedAfter: 3_600_000, trace });
  t.after(() => reader.close());
  return { reader, sent };
}

test('lines', async (t) => {
  const { reader } = create(t, lists.lines.map(([line]) => line));
  const events = [];
  for (const type of ['card', 'poll', 'cardRemoved', 'log']) {
    reader.on(type, (text) => events.push(`${type} ${text}`));
  }
  reader.start();
  for await (const event of reader) if (event.state === 'ready' && reader.name === 'Dev10-caf\udce9') break;
  const expected = lists.lines.flatMap(([, right]) => (right ? right.split('; ') : []));
  assert.deepEqual(events, expected.map(decode));
});

test('answers', async (t) => {
  const { reader } = create(t, ['Reader: Dev1-A'], lists.answers.map(([answer]) => answer));
  reader.start();
  await reader.waitFor('ready');
  for (const [answer, expected] of lists.answers) {
    const got = (await outcome(reader.clearLed())).join(' ').trim();
    const [name] = expected.split(' ');
    const isExpected = got.startsWith(name) && got.includes(expected.slice(name.length));
    assert.ok(isExpected, `${answer}: expected ${expected}, got ${got}`);
  }
});

test('arguments', async (t) => {
  const { reader, sent } = create(t, ['Reader: Dev1-A']);
  reader.start();
  await reader.waitFor('ready');
  const before = sent.length;
  for (const [left, part] of lists.arguments) {
    const isExpected = ({ name, message }) => /^(Type|Range)Error$/.test(name) && message.includes(part);
    await assert.rejects(run(reader, left, undefined, decode), isExpected, left);
  }
  assert.equal(sent.length, before);
});

test('options', () => {
  assert.throws(() => new CardReader('agent', { toString: 1 }), /^TypeError: unknown option 'toString'$/);
  const values = { infinity: Infinity, nan: NaN, none: null, true: true, '[1]': [1] };
  for (const [left, right] of lists.options) {
    const [name, value] = left.split(' ');
    const options = { [name]: value in values ? values[value] : JSON.parse(value) };
    const create = () => new CardReader('agent', options);
    if (right === 'ok') create();
    else assert.throws(create, ({ message }) => message.includes(name) && message.includes(right), left);
  }
});

test('errors', () => {
  for (const [name, code] of lists.errors) {
    const { prototype } = client[name];
    assert.deepEqual([prototype.name, prototype.code], [name, code]);
    assert.ok(prototype instanceof client.CardReaderError);
  }
});

test('start errors', () => {
  for (const [code, state] of lists['start errors']) {
    assert.equal(RETRYABLE.includes(code) ? 'restarting' : 'failed', state, code);
  }
});
