// What the shared lists do not cover: the client's own ways in Node.js.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { getEventListeners, on, once } from 'node:events';
import { test } from 'node:test';
import { AgentEndedError, CardReader } from 'card-reader-agent';
import { StubReader, VirtualReader } from 'card-reader-agent/testing';

// A test with a virtual reader and a client that is ready.
const check = (name, options, body) =>
  test(name, { timeout: 20_000 }, async () => {
    const virtual = await VirtualReader.start();
    const reader = new CardReader(process.env.AGENT, { env: virtual.env, ...options });
    reader.start();
    await reader.waitFor('ready');
    await body(reader, virtual).finally(() => reader.close()).finally(() => virtual.close());
  });

check('a busy application blames nobody', { cardRemovedAfter: 200, watchdogTimeout: 300 }, async (reader, virtual) => {
  await virtual.hold('3AB1234/26');
  await once(reader, 'poll');
  for (const event of ['state', 'cardRemoved']) reader.once(event, () => assert.fail(event));
  for (let i = 0; i < 3; i++) {
    const answer = reader.ping('one', { timeout: 100 });
    await new Promise(setImmediate); // it is sent
    for (const end = performance.now() + 500; performance.now() < end; );
    assert.equal(await answer, 'one'); // it came in time, and was not read
  }
  reader.removeAllListeners();
});

check('a signal cancels and leaves no listener', { commandTimeout: Infinity }, async (reader) => {
  const limits = { signal: AbortSignal.abort(new Error('cancelled')) };
  const calls = [reader.beep(limits), reader.waitFor('failed', limits), reader.waitForConnection(limits)];
  for (const call of [...calls, reader.close(limits)]) await assert.rejects(call, /cancelled/);
  await reader.waitFor('closed'); // it closes nevertheless
  const { signal } = new AbortController();
  await assert.rejects(reader.ping('', { signal }), AgentEndedError);
  assert.equal(getEventListeners(signal, 'abort').length, 0);
});

check('errors name the caller, and listeners that reject cost a warning', {}, async (reader, virtual) => {
  const beepFromHere = async () => await reader.beep(7);
  await assert.rejects(beepFromHere(), ({ stack }) => /^RejectedError: .*beepFromHere/s.test(stack));
  reader.once('card', () => Promise.reject(new Error('by the listener')));
  const [warned, cards] = [once(process, 'warning'), on(reader, 'card')];
  await virtual.queue('3AB1234/26');
  assert.match((await warned)[0].message, /'card' failed: Error: by the listener/);
  assert.deepEqual((await cards.next()).value, ['3AB1234']);
});

check('an agent that survives a kill is given up after two seconds', { closeTimeout: 0 }, async (reader, virtual) => {
  await virtual.hang('BeepNow');
  const beep = assert.rejects(reader.beep(), { code: 'AGENT_ENDED', message: 'the agent is not responding' });
  await virtual.expect('enter BeepNow');
  const { pid } = reader;
  const ChildProcess = Object.getPrototypeOf(spawn('true'));
  const { kill } = ChildProcess;
  ChildProcess.kill = () => true;
  await Promise.all([reader.close(), beep]).finally(() => (ChildProcess.kill = kill));
  process.kill(pid, 'SIGKILL'); // it was still there
});

test('delays grow, and loops and waits end with the error', { timeout: 20_000 }, async () => {
  const reader = new CardReader('/usr/bin/false', { restartDelay: 200, giveUpAfter: 4 });
  const states = [];
  const loop = (async () => {
    for await (const { state } of reader) states.push(state);
  })();
  const started = performance.now();
  reader.start();
  const error = { name: 'AgentEndedError', message: 'the agent exited with status 1', status: 1 };
  for (const wait of [loop, once(reader, 'card'), reader.waitFor('ready')]) await assert.rejects(wait, error);
  assert.ok(performance.now() - started > 1395); // 200, 400 and 800
  assert.deepEqual(states.slice(-3), ['restarting', 'starting', 'failed']);
});

test('standard error that nobody reads', { timeout: 20_000 }, async () => {
  const application = `import { CardReader } from '${new URL('../index.mjs', import.meta.url)}';
    const reader = new CardReader('/bin/cp', { giveUpAfter: 2, restartDelay: 0 });
    reader.start();
    await reader.waitFor('failed');`;
  const child = spawn(process.execPath, ['--input-type=module', '-e', application]);
  child.stderr.destroy();
  assert.deepEqual(await once(child, 'exit'), [0, null]);
});

test('a stub reader', async () => {
  const signals = [];
  const onConnect = (reader, { signal }) => signals.push(signal) && reader.setLed('red', { signal });
  const reader = new StubReader({ onConnect, restartDelay: 0 });
  const seen = [];
  reader.on('state', (state) => state === 'restarting' && reader.close()); // called first
  for (const event of ['state', 'card', 'cardRemoved']) reader.on(event, (what) => seen.push(what));
  reader.start();
  await reader.waitFor('searching');
  reader.plug();
  assert.deepEqual(reader.commands, ['SetLED red']); // at once: before a card is reported
  await reader.waitFor('ready');
  for (const id of ['AB', 'AB', 'CD']) reader.hold(id);
  reader.fail('Beeping failed with error 3');
  await assert.rejects(reader.beep(2), { code: 'READER_FAILED', number: 3 });
  reader.remove();
  reader.kill();
  assert.ok(signals[0].aborted);
  await reader.waitFor('closed');
  assert.deepEqual(seen, ['searching', 'ready', 'AB', 'AB', 'CD', 'CD', 'restarting', 'closed']);
});
