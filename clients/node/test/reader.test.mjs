// What the list of situations does not say: the supervised reader's manners in Node.js.

import assert from 'node:assert/strict';
import { getEventListeners, once } from 'node:events';
import { createRequire } from 'node:module';
import { test } from 'node:test';
import * as imported from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';

const { CardReader } = imported;

// A test with a virtual reader and a supervised one, which has found it if it is the agent's.
function check(name, { path = process.env.AGENT, ...options }, body) {
  test(name, { timeout: 20_000 }, async (t) => {
    const virtual = await VirtualReader.start();
    const reader = new CardReader(path, { env: virtual.env, ...options });
    t.after(async () => {
      await reader.close();
      await virtual.close();
    });
    reader.start();
    if (path === process.env.AGENT) await reader.waitForReader();
    await body(reader, virtual);
  });
}

test('one package for import and require', () => {
  const required = createRequire(import.meta.url)('card-reader-agent');
  assert.deepEqual({ ...imported, default: undefined }, { ...required, default: undefined });
  assert.equal(imported.CardReader, required.CardReader);
});

test('options that are none', () => {
  for (const options of [
    { restartDelays: 1 },
    { cardRemovedAfter: -1 },
    { commandTimeout: NaN },
    { watchdogTimeout: 'long' },
    { onHang: 'kill' },
    { stderr: 'pipe' },
  ]) {
    assert.throws(() => new CardReader('agent', options), /Error: .*(option|onHang|stderr)/);
  }
  assert.throws(() => new CardReader(undefined), /^TypeError: Not the path of an agent: undefined$/);
  assert.equal(new CardReader('agent', { restartDelay: undefined }).state, 'starting');
});

check('events, iterated over', {}, async (reader, virtual) => {
  const seen = [];
  const iterated = (async () => {
    for await (const event of reader) seen.push(event);
  })();
  const card = CardReader.once(reader, 'card');
  await virtual.hold('3AB1234/26');
  assert.deepEqual(await card, ['3AB1234']);
  assert.equal(reader.card, '3AB1234');
  await reader[Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]();
  await iterated; // it ends with the reader
  for await (const event of reader) assert.fail(event); // and has ended
  const polls = seen.filter(({ type }) => type === 'poll');
  assert.deepEqual(polls[0], { type: 'poll', id: '3AB1234' });
  assert.deepEqual(
    seen.filter(({ type }) => type !== 'poll' && type !== 'log'),
    [
      { type: 'card', id: '3AB1234' },
      { type: 'cardRemoved', id: '3AB1234' },
      { type: 'state', state: 'closed', previous: 'ready', reason: null },
    ],
  );
});

const impatient = { cardRemovedAfter: 200, watchdogTimeout: 300 };
check('a busy host blames nobody', impatient, async (reader, virtual) => {
  const seen = [];
  for (const event of ['state', 'card', 'cardRemoved']) reader.on(event, () => seen.push(event));
  await virtual.hold('3AB1234/26');
  await once(reader, 'poll');
  for (let i = 0; i < 3; i++) {
    const answer = reader.ping('one', { timeout: 100 });
    await new Promise(setImmediate); // it is sent
    for (const end = performance.now() + 500; performance.now() < end; );
    assert.equal(await answer, 'one'); // it came in time, and was not read
  }
  assert.deepEqual(seen, ['card']);
});

check('wrong arguments and cancelled commands', { commandTimeout: Infinity }, async (reader) => {
  const aborted = AbortSignal.abort(new Error('no longer'));
  const cases = [
    [reader.ping('a\nb'), TypeError],
    [reader.configure({ 'a.b': { c: 1 } }), TypeError],
    [reader.configure({ a: { b: 0.5 } }), RangeError],
    [reader.beep(1, 'short', { timeout: -1 }), RangeError],
    [reader.beep(1, 'short', { signal: aborted }), /no longer/],
    [reader.waitForReader({ signal: aborted }), /no longer/],
  ];
  for (const [command, error] of cases) await assert.rejects(command, error);
  const hereItIsAwaited = async () => await reader.beep(7);
  await assert.rejects(hereItIsAwaited(), ({ stack }) => /hereItIsAwaited/.test(stack));
  assert.throws(() => reader.start(), /was started before/);
  const { signal } = new AbortController();
  await reader.ping('', { signal });
  assert.equal(getEventListeners(signal, 'abort').length, 0);
});

const ending = { path: '/usr/bin/false', restartDelay: 50, giveUpAfter: 4 };
check('pauses that grow', ending, async (reader) => {
  const started = performance.now();
  await assert.rejects(once(reader, 'card'), /^AgentEndedError: the agent ended with status 1$/);
  const took = performance.now() - started;
  assert.ok(took > 345 && took < 5000, `${took}`); // 50, 100 and 200
  assert.equal(reader.state, 'failed');
  await assert.rejects(reader.waitForReader(), /status 1/);
});

test('what changes while the host is at work', { timeout: 20_000 }, async () => {
  const virtual = await VirtualReader.start();
  let connected, finish;
  const called = new Promise((resolve) => (connected = resolve));
  const onConnect = () => {
    connected();
    return new Promise((resolve) => (finish = resolve));
  };
  const options = { env: virtual.env, restartDelay: 10, onConnect };
  const reader = new CardReader(process.env.AGENT, options);
  const seen = [];
  reader.on('state', (state) => {
    seen.push(state);
    if (state === 'starting') reader.close(); // from within
  });
  reader.start();
  await called;
  await virtual.unplug();
  await assert.rejects(reader.waitForReader({ timeout: 300 }), { name: 'CommandTimeoutError' });
  assert.equal(reader.reason, 'the reader has gone');
  finish(); // too late: that reader has gone
  await assert.rejects(reader.waitForReader({ timeout: 100 }), { name: 'CommandTimeoutError' });
  process.kill(reader.pid, 'SIGKILL');
  await assert.rejects(reader.waitForReader(), /closed/);
  assert.deepEqual(seen, ['searching', 'restarting', 'starting', 'closed']);
  assert.equal(reader.pid, undefined);
  await virtual.close();
});
