// Against the agent and the virtual reader in BUILD_DIR.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { AgentEndedError, CardReaderAgent, CommandError } from '../index.js';

const BUILD = process.env.BUILD_DIR;
const AGENT = join(BUILD, 'CardReaderAgent.app/Contents/MacOS/card-reader-agent');
const EXAMPLE = fileURLToPath(new URL('../examples/door-list.mjs', import.meta.url));
const pipes = { stdio: ['pipe', 'pipe', 'inherit'] };
const linesOf = ({ stdout }) => createInterface({ input: stdout })[Symbol.asyncIterator]();

// A test with a virtual reader of its own, which has carried out `verbs`.
function check(name, verbs, body) {
  test(name, { timeout: 20_000 }, async (t) => {
    const folder = mkdtempSync(join(tmpdir(), 'card-reader-'));
    const env = { ...process.env, VIRTUAL_READER_SOCKET: join(folder, 'socket') };
    const child = spawn(join(BUILD, 'virtual-reader'), { ...pipes, env });
    const ended = once(child, 'close');
    const agent = new CardReaderAgent(AGENT, { env });
    t.after(async () => {
      child.stdin.end();
      await agent.close();
      const [status] = await ended;
      rmSync(folder, { recursive: true });
      assert.equal(status, 0); // it understood all verbs, and what it was to expect came
    });
    const output = linesOf(child);
    const tell = async (...lines) => {
      child.stdin.write([...lines, 'beeps\n'].join('\n')); // its line shows that all are done
      let told = '';
      for (let line = ''; !line.startsWith('beeps'); told += `${line}\n`) {
        line = (await output.next()).value;
      }
      return told;
    };
    await tell(...verbs);
    const start = async () => {
      const attached = once(agent, 'attached');
      await agent.start();
      await attached;
      return agent;
    };
    await body({ tell, start, agent, env });
  });
}

const verbs = ['part "caf\\xe9"', 'fail BeepNow error 3', 'say usbConnect "one\\nOk: two"'];
check('commands', verbs, async ({ tell, start, agent }) => {
  const logs = [];
  agent.on('log', (text) => logs.push(text));
  await start();
  const name = agent.reader;
  assert.match(name, /^Dev\d+-caf\udce9$/u); // its bytes are kept, or no command would find it
  const failing = assert.rejects(agent.beep(name), new CommandError('Beeping failed with error 3'));
  assert.equal(await agent.ping('  é 17 '), '  é 17');
  await failing;
  assert.equal(await agent.beep(name, 2, 'long'), '');
  await tell('fail ResetFactoryDflts error 4');
  assert.equal(await agent.clearLed(name), '');
  await assert.rejects(agent.resetConfig(name), /^CommandError: Resetting .* error 4$/);
  assert.equal(await agent.setLed(name, 'amber'), '');
  const settings = { tsCfgFlags: { bHaltKBSnd: true, bSndOnRx: -2 }, tsRecord: { iField: 1 } };
  assert.equal(await agent.readerConfig(name, settings), '');
  const effects = /led amber\n[^]*bSndOnRx=-2 bHaltKBSnd=1\n[^]*beeps 0 short, 2 long/;
  assert.match(await tell('led', 'config'), effects);
  const unknown = 'Ignoring unexpected setting type tsRecord';
  const part = "Reader part number is 'caf\udce9'";
  assert.deepEqual(logs, ['pcProxAPI says one', 'Ok: two', part, unknown]);

  const answer = agent.ping(); // answered although the end comes right behind it
  assert.deepEqual(await agent.close(), { code: 0, signal: null });
  assert.equal(await answer, '');
  await assert.rejects(agent.ping(), AgentEndedError);
});

check('what no line can tell is not sent', [], async ({ start }) => {
  const agent = await start();
  const settings = (name, value) => agent.readerConfig('R', { type: { [name]: value } });
  await assert.rejects(agent.ping('a\nGlobal:Ping b'), /line feed/);
  await assert.rejects(agent.ping('a\0b'), /zero byte/);
  await assert.rejects(agent.ping('é'.repeat(506)), /1024 bytes/);
  for (const name of ['', 'Dev1-A:B']) await assert.rejects(agent.beep(name), /reader name/);
  await assert.rejects(settings('a b', 1), /White space/);
  for (const value of [1.5, 2 ** 31]) await assert.rejects(settings('a', value), /32-bit/);
  assert.equal(await agent.ping('x'.repeat(1011)), 'x'.repeat(1011)); // a line of 1023 bytes
  const nowhere = new CardReaderAgent('/nowhere/agent');
  await assert.rejects(nowhere.start(), /Cannot start the agent \/nowhere\/agent: .*ENOENT/);
});

check('replugging in the middle of 10,000 commands', ['hang BeepNow'], async ({ tell, start }) => {
  const agent = await start();
  const old = agent.reader;
  const replaced = once(agent, 'replaced');
  const texts = Array.from({ length: 10_000 }, (_, i) => `${i}`.padEnd(50, '.'));
  const beep = agent.beep(old).catch((error) => error.message); // all the others wait behind it
  const pings = Promise.all(texts.map((text) => agent.ping(text)));
  await tell('expect BeepNow', 'replug', 'release');
  Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, 300); // the agent can't write on
  assert.equal(await beep, 'Beeping failed with error 1');
  assert.deepEqual(await pings, texts);
  assert.deepEqual(await replaced, [agent.reader, old]);
  const message = `Action was for reader ${old}, but the current reader is ${agent.reader}`;
  await assert.rejects(agent.beep(old), new CommandError(message));
  const gone = once(agent, 'gone');
  await tell('unplug');
  await gone;
  assert.equal(agent.reader, null);
});

check('a killed agent fails all that is pending', ['hang BeepNow'], async ({ tell, start }) => {
  const agent = await start();
  const pending = Promise.allSettled([agent.beep(agent.reader), agent.ping()]);
  const end = once(agent, 'end');
  await tell('expect BeepNow');
  process.kill(agent.pid, 'SIGKILL');
  for (const { reason } of await pending) assert.equal(reason.signal, 'SIGKILL');
  assert.deepEqual(await end, [{ code: null, signal: 'SIGKILL' }]);
  await assert.rejects(agent.ping(), AgentEndedError);
});

check('the door list', [], async ({ tell, env }) => {
  const example = spawn(process.execPath, [EXAMPLE, AGENT], { ...pipes, env, timeout: 15_000 });
  const output = linesOf(example);
  assert.match((await output.next()).value, /^Reader Dev\d+-VR-1 is ready$/);
  assert.match(await tell('card queue 3AB1234/26', 'expect BeepNow', 'led'), /led green\nbeeps 1 /);
  assert.match(await tell('card queue 00', 'expect BeepNow', 'led'), /led red\nbeeps 3 /);
  assert.equal((await output.next()).value, 'Ada, come in');
  assert.equal((await output.next()).value, 'Card 00 is not on the list');
  example.kill();
  await once(example, 'close');
});
