// What the shared lists do not cover: the client's own ways in Node.js.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { getEventListeners, on, once } from 'node:events';
import { test } from 'node:test';
import { AgentEndedError, CardReader } from 'card-reader-agent';
import { StubReader, VirtualReader } from 'card-reader-agent/testing';
import { program } from './player.mjs';

// A test with a virtual reader and a client that is ready.
function check(name, options, body) {
  test(name, { timeout: 20_000 }, async (t) => {
    const virtual = await VirtualReader.start();
    const reader = new CardReader(process.env.AGENT, { env: virtual.env, ...options });
    t.after(async () => {
      await reader.close();
      await virtual.close();
    });
    reader.start();
    await reader.waitFor('ready');
    await body(reader, virtual);
  });
}

check('a busy application blames nobody', { cardRemovedAfter: 200, watchdogTimeout: 300 }, async (reader, virtual) => {
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

check('a signal cancels and leaves no listener', { commandTimeout: Infinity }, async (reader) => {
  const signal = AbortSignal.abort(new Error('cancelled'));
  const limits = { signal };
  const calls = [reader.beep(limits), reader.waitFor('failed', limits), reader.waitForConnection(limits)];
  for (const call of [...calls, reader.close(limits)]) await assert.rejects(call, /cancelled/);
  await reader.waitFor('closed'); // it closes nevertheless
  const used = new AbortController().signal;
  await assert.rejects(reader.ping('', { signal: used }), AgentEndedError);
  assert.equal(getEventListeners(used, 'abort').length, 0);
});

check('errors name the caller, and listeners that reject cost a warning', {}, async (reader, virtual) => {
  const beepFromHere = async () => await reader.beep(7);
  await assert.rejects(beepFromHere(), ({ stack }) => /^RejectedError: .*beepFromHere/s.test(stack));
  reader.once('card', () => Promise.reject(new Error('by the listener')));
  const warned = once(process, 'warning');
  const cards = on(reader, 'card');
  await virtual.queue('3AB1234/26');
  assert.match((await warned)[0].message, /'card' failed: Error: by the listener/);
  assert.deepEqual((await cards.next()).value, ['3AB1234']);
});

check('two seconds after a kill all is settled', { closeTimeout: 0 }, async (reader, virtual) => {
  await virtual.hang('BeepNow');
  const beep = reader.beep();
  await virtual.expect('enter BeepNow');
  const { pid } = reader;
  const ChildProcess = Object.getPrototypeOf(spawn('true'));
  const { kill } = ChildProcess;
  ChildProcess.kill = () => true; // an agent that survives SIGKILL
  const closed = reader.close();
  await assert.rejects(beep, { code: 'AGENT_ENDED', message: 'the agent is not responding', status: null });
  await closed;
  ChildProcess.kill = kill;
  process.kill(pid, 'SIGKILL'); // it was still there
});

test('delays grow, and loops and waits end with the error', { timeout: 20_000 }, async () => {
  const reader = new CardReader('/usr/bin/false', { restartDelay: 50, giveUpAfter: 4 });
  const states = [];
  const loop = (async () => {
    for await (const { type, state } of reader) if (type === 'state') states.push(state);
  })();
  const started = performance.now();
  reader.start();
  const error = { name: 'AgentEndedError', message: 'the agent exited with status 1', status: 1 };
  for (const wait of [loop, once(reader, 'card'), reader.waitFor('ready')]) await assert.rejects(wait, error);
  assert.ok(performance.now() - started > 345); // 50, 100 and 200
  assert.deepEqual(states.slice(-3), ['restarting', 'starting', 'failed']);
  await reader.close();
  for await (const event of reader) assert.fail(event); // it has ended
});

test('standard error that nobody reads', { timeout: 20_000 }, async () => {
  const agent = program('writes', 'read -r ping; while echo text; do :; done >&2 & exec sleep 600');
  const application = `import { CardReader } from 'card-reader-agent';
    const reader = new CardReader('${agent}', { closeTimeout: 100 });
    reader.start();
    setTimeout(() => reader.close().then(() => console.log(reader.state)), 500);`;
  const args = ['--input-type=module', '-e', application];
  const child = spawn(process.execPath, args, { cwd: import.meta.dirname ?? new URL('.', import.meta.url).pathname });
  child.stderr.destroy();
  const [said] = await once(child.stdout.setEncoding('utf8'), 'data');
  assert.equal(said, 'closed\n');
});

test('a stub reader', async () => {
  const signals = [];
  const onConnect = (reader, { signal }) => signals.push(signal) && reader.setLed('red', { signal });
  const reader = new StubReader({ onConnect, restartDelay: 0 });
  const seen = [];
  for (const event of ['state', 'card', 'cardRemoved']) reader.on(event, (what) => seen.push(what));
  reader.start();
  await reader.waitFor('searching');
  reader.plug();
  assert.deepEqual(reader.commands, ['SetLED red']); // at once: before a card is reported
  await reader.waitFor('ready');
  for (const id of ['AB', 'AB', 'CD']) reader.hold(id);
  reader.remove();
  reader.fail('Beeping failed with error 3');
  await assert.rejects(reader.beep(2), { code: 'READER_FAILED', number: 3 });
  assert.deepEqual(reader.commands, ['SetLED red', 'Beep short 2']);
  reader.kill();
  assert.ok(signals[0].aborted);
  await reader.waitFor('starting');
  await reader.waitFor('searching');
  await reader.close();
  const cards = ['AB', 'AB', 'CD', 'CD'];
  assert.deepEqual(seen, ['searching', 'ready', ...cards, 'restarting', 'starting', 'searching', 'closed']);
});
