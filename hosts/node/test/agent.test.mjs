// Against the agent and the virtual reader in BUILD_DIR; for hosts/test, which cleans up behind it.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync } from 'node:fs';
import { createInterface } from 'node:readline';
import { test } from 'node:test';
import { CardReaderAgent } from 'card-reader-agent';

const BUILD = process.env.BUILD_DIR;
const stdio = ['pipe', 'pipe', 'inherit'];
const AGENT = `${BUILD}/CardReaderAgent.app/Contents/MacOS/card-reader-agent`;

// A test with a virtual reader of its own, which has carried out `verbs`.
function check(name, verbs, body) {
  test(name, { timeout: 20_000 }, async (t) => {
    const folder = mkdtempSync(`${process.env.TMPDIR}/`);
    const env = { ...process.env, VIRTUAL_READER_SOCKET: `${folder}/socket` };
    const reader = spawn(`${BUILD}/virtual-reader`, { env, stdio });
    const agent = new CardReaderAgent(AGENT, { env });
    t.after(async () => {
      reader.stdin.end();
      const [status] = await once(reader, 'close');
      await agent.close();
      assert.equal(status, 0); // it understood all verbs, and what it was to expect came
    });
    const output = createInterface({ input: reader.stdout })[Symbol.asyncIterator]();
    const tell = async (...lines) => {
      reader.stdin.write([...lines, 'beeps\n'].join('\n')); // its line shows that all are done
      const told = [];
      do told.push((await output.next()).value);
      while (!told.at(-1).startsWith('beeps'));
      return told.join('\n');
    };
    await tell(...verbs);
    const start = () => Promise.all([once(agent, 'attached'), agent.start()]);
    await body({ tell, start, agent });
  });
}

const outcomes = async (commands) =>
  (await Promise.allSettled(commands)).map(({ value, reason }) => value ?? `${reason}`);

const verbs = ['part "caf\\xe9"', 'fail BeepNow error 3', 'say usbConnect "one\\nOk: two"'];
check('commands', verbs, async ({ tell, start, agent }) => {
  const logs = [];
  agent.on('log', (text) => logs.push(text)).once('log', () => assert.fail('from a listener'));
  const thrown = new Promise((take) => process.setUncaughtExceptionCaptureCallback(take));
  await start();
  assert.match(`${await thrown}`, /from a listener/); // and no line is lost
  process.setUncaughtExceptionCaptureCallback(null);
  const name = agent.reader;
  assert.match(name, /^Dev\d+-caf\udce9$/u); // its bytes are kept, or no command would find it
  const twoLines = 'TypeError: A command must not hold a line feed or a zero byte';
  const noName = 'TypeError: A reader name must be neither empty nor hold a colon: ';
  const config = (settings) => agent.readerConfig(name, settings);
  const cases = [
    [agent.beep(name), 'CommandError: Beeping failed with error 3'],
    [agent.ping('  é 17 '), '  é 17'],
    [agent.beep(name, 2, 'long'), ''],
    [agent.clearLed(name), ''],
    [agent.setLed(name, 'amber'), ''],
    [config({ tsCfgFlags: { bHaltKBSnd: true, bSndOnRx: -2 }, tsRecord: { iField: 1 } }), ''],
    [agent.ping('a\nGlobal:Ping b'), twoLines],
    [agent.ping('a\0b'), twoLines],
    [agent.ping('é'.repeat(506)), 'RangeError: Command line of 1024 bytes, more than 1023'],
    [agent.ping('x'.repeat(1011)), 'x'.repeat(1011)],
    [agent.beep(''), `${noName}''`],
    [agent.beep('Dev1-A:B'), `${noName}'Dev1-A:B'`],
    [config({ type: { 'a b': 1 } }), "TypeError: Not the name of a setting: 'type.a b'"],
    [config({ type: { a: 1.5 } }), 'RangeError: Not a 32-bit integer: type.a=1.5'],
    [config({ type: { a: 2 ** 31 } }), 'RangeError: Not a 32-bit integer: type.a=2147483648'],
    [agent.resetConfig(name), ''],
    [agent.close(), { code: 0, signal: null, reason: 'the agent ended with status 0' }], // all is answered
    [agent.ping(), 'AgentEndedError: the agent is not running'],
  ];
  assert.deepEqual(await outcomes(cases.map(([command]) => command)), cases.map(([, is]) => is));
  const told = await tell('calls');
  assert.match(told, /beep long 2\nled own\nled amber\nconfig written\nconfig reset\n/);
  assert.match(told, /SetFlags .* -2 1 -> 1/);
  const part = "Reader part number is 'caf\udce9'";
  const unknown = 'Ignoring unexpected setting type tsRecord';
  assert.deepEqual(logs, ['pcProxAPI says one', 'Ok: two', part, unknown]);
});

check('replugging amid 10,000 commands', ['hang BeepNow'], async ({ tell, start, agent }) => {
  await start();
  const old = agent.reader;
  const replaced = once(agent, 'replaced');
  const texts = Array.from({ length: 10_000 }, (_, i) => `${i}`.padEnd(50, '.'));
  const answers = outcomes([agent.beep(old), ...texts.map((text) => agent.ping(text))]);
  await tell('expect BeepNow', 'replug', 'release');
  assert.deepEqual(await answers, ['CommandError: Beeping failed with error 1', ...texts]);
  assert.deepEqual(await replaced, [agent.reader, old]);
  const message = `Action was for reader ${old}, but the current reader is ${agent.reader}`;
  await assert.rejects(agent.beep(old), { message });
});

check('a killed agent', ['hang BeepNow'], async ({ tell, start, agent }) => {
  await start();
  const pending = outcomes([agent.beep(agent.reader), agent.ping()]);
  const end = once(agent, 'end');
  await tell('expect BeepNow');
  process.kill(agent.pid, 'SIGKILL');
  const killed = 'AgentEndedError: the agent was ended by SIGKILL';
  assert.deepEqual(await pending, [killed, killed]);
  assert.deepEqual(await end, [{ code: null, signal: 'SIGKILL', reason: 'the agent was ended by SIGKILL' }]);
  assert.deepEqual(await outcomes([agent.ping(), agent.close()]), [killed, (await end)[0]]);
  assert.deepEqual([agent.reader, agent.pid], [null, undefined]);
});

test('an agent that is not there', async () => {
  const nowhere = new CardReaderAgent('/nowhere/agent');
  const answers = await outcomes([nowhere.start(), nowhere.ping(), nowhere.close()]);
  assert.match(answers[0], /^AgentStartError: cannot start \/nowhere\/agent: .*ENOENT/);
});
