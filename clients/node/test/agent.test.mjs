// The lower layer: one agent, or a program in its place, and a virtual reader.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { chmodSync, mkdtempSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { test } from 'node:test';
import { CardReaderAgent, CardReaderError } from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';

// A test with a virtual reader of its own, which has carried out `verbs`.
function check(name, verbs, body) {
  test(name, { timeout: 20_000 }, async (t) => {
    const virtual = await VirtualReader.start();
    const agent = new CardReaderAgent(process.env.AGENT, { env: virtual.env });
    t.after(async () => {
      await agent.close();
      await virtual.close();
    });
    for (const verb of verbs) await virtual.execute(verb);
    const start = () => Promise.all([once(agent, 'attached'), agent.start()]);
    await body({ virtual, start, agent });
  });
}

const outcomes = async (commands) =>
  (await Promise.allSettled(commands)).map(({ value, reason }) => value ?? `${reason}`);

// A program in the agent's place: a shell script.
const folder = mkdtempSync(`${tmpdir()}/`);
function script(text) {
  const path = `${folder}/script-${text.length}`;
  writeFileSync(path, `#!/bin/sh\n${text}\n`);
  chmodSync(path, 0o700);
  return path;
}

const verbs = ['part "caf\\xe9"', 'fail BeepNow error 3', 'say usbConnect "one\\nOk: two"'];
check('commands', verbs, async ({ virtual, start, agent }) => {
  const logs = [];
  agent.on('log', (text) => logs.push(text)).once('log', () => assert.fail('from a listener'));
  const thrown = new Promise((take) => process.setUncaughtExceptionCaptureCallback(take));
  await start();
  assert.match(`${await thrown}`, /from a listener/); // and no line is lost
  process.setUncaughtExceptionCaptureCallback(null);
  const name = agent.reader;
  assert.match(name, /^Dev\d+-caf\udce9$/u); // its bytes are kept, or no command would find it
  const twoLines = 'TypeError: A command must not hold a line feed or a zero byte';
  const surrogate = 'TypeError: A command must not hold a lone surrogate that stands for no byte';
  const noName = 'TypeError: A reader name must be neither empty nor hold a colon: ';
  const noSetting = 'TypeError: Not the name of a setting: ';
  const config = (settings) => agent.readerConfig(name, settings);
  const cases = [
    [agent.beep(name), 'CommandError: Beeping failed with error 3'],
    [agent.ping('  é 17 '), '  é 17'],
    [agent.ping('\udcff\ud83d\ude00'), '\udcff\ud83d\ude00'],
    [agent.beep(name, 2, 'long'), ''],
    [agent.clearLed(name), ''],
    [agent.setLed(name, 'amber'), ''],
    [config({ tsCfgFlags: { bHaltKBSnd: true, bSndOnRx: -2 }, tsRecord: { iField: 1 } }), ''],
    [agent.ping('a\nGlobal:Ping b'), twoLines],
    [agent.ping('a\0b'), twoLines],
    [agent.ping('\ude00\ud83d'), surrogate],
    [agent.ping('é'.repeat(506)), 'RangeError: Command line of 1024 bytes, more than 1023'],
    [agent.ping('x'.repeat(1011)), 'x'.repeat(1011)],
    [agent.beep(''), `${noName}''`],
    [agent.beep('Dev1-A:B'), `${noName}'Dev1-A:B'`],
    [config({ type: { 'a b': 1 } }), `${noSetting}'type.a b'`],
    [config({ 'tsCfgFlags.x': { a: 1 } }), `${noSetting}'tsCfgFlags.x.a'`],
    [config({ type: { '': 1 } }), `${noSetting}'type.'`],
    [config({ type: { a: 1.5 } }), 'RangeError: Not a 32-bit integer: type.a=1.5'],
    [config({ type: { a: 2 ** 31 } }), 'RangeError: Not a 32-bit integer: type.a=2147483648'],
    [agent.resetConfig(name), ''],
  ];
  assert.equal(agent.pending, 9);
  const closed = agent.close();
  await assert.rejects(agent.ping(), /^AgentEndedError: the agent is not running$/);
  assert.deepEqual(await outcomes(cases.map(([command]) => command)), cases.map(([, is]) => is));
  const reason = 'the agent ended with status 0';
  assert.deepEqual(await closed, { code: 0, signal: null, reason }); // and all is answered
  assert.deepEqual([agent.pending, agent.answered], [0, 9]);
  const told = await virtual.execute('calls');
  assert.match(told, /SetFlags .* -2 1 -> 1/);
  const part = "Reader part number is 'caf\udce9'";
  const unknown = 'Ignoring unexpected setting type tsRecord';
  assert.deepEqual(logs, ['pcProxAPI says one', 'Ok: two', part, unknown]);
});

check('replugging amid 10,000 commands', ['hang BeepNow'], async ({ virtual, start, agent }) => {
  await start();
  const old = agent.reader;
  const replaced = once(agent, 'replaced');
  const texts = Array.from({ length: 10_000 }, (_, i) => `${i}`.padEnd(50, '.'));
  const answers = outcomes([agent.beep(old), ...texts.map((text) => agent.ping(text))]);
  await virtual.replug();
  await virtual.clear();
  await virtual.release();
  assert.match((await answers)[0], /^CommandError: (Beeping failed with error 1|Action was for)/);
  assert.deepEqual((await answers).slice(1), texts);
  assert.deepEqual(await replaced, [agent.reader, old]);
  const message = `Action was for reader ${old}, but the current reader is ${agent.reader}`;
  const hereItIsAwaited = async () => await agent.beep(old);
  await assert.rejects(hereItIsAwaited(), (error) => {
    assert.equal(error.message, message);
    return /hereItIsAwaited/.test(error.stack) && error instanceof CardReaderError;
  });
});

check('a killed agent', ['hang BeepNow'], async ({ start, agent }) => {
  await start();
  const pending = outcomes([agent.beep(agent.reader), agent.ping()]);
  const end = once(agent, 'end');
  const gone = once(agent, 'gone'); // which never comes
  process.kill(agent.pid, 'SIGKILL');
  const reason = 'the agent was ended by SIGKILL';
  const killed = `AgentEndedError: ${reason}`;
  assert.deepEqual(await outcomes([...(await pending), gone]), [killed, killed, killed]);
  assert.deepEqual(await end, [{ code: null, signal: 'SIGKILL', reason }]);
  assert.deepEqual(await outcomes([agent.ping(), agent.close()]), [killed, (await end)[0]]);
  assert.deepEqual([agent.reader, agent.pid], [null, undefined]);
});

test('programs that are no agent', { timeout: 20_000 }, async () => {
  const texts = [];
  const stderr = (text) => texts.push(text);
  const ends = async (text) => {
    const agent = new CardReaderAgent(script(text), { stderr });
    const [attached] = await Promise.allSettled([once(agent, 'attached'), agent.start()]);
    return `${attached.reason}`;
  };
  // Its output is cut off, or is kept open by another process; its last words are many.
  assert.equal(await ends('printf Ok:; exit 3'), 'AgentEndedError: the agent ended with status 3');
  const started = performance.now();
  assert.match(await ends('sleep 15 & exit 4'), /status 4$/);
  assert.ok(performance.now() - started < 10_000);
  const said = await ends('head -c 9000 /dev/zero | tr "\\0" x >&2; echo "the end" >&2; exit 13');
  assert.match(said, /^AgentEndedError: the agent ended with status 13: x{4088}the end$/);
  assert.equal(texts.join(''), `${'x'.repeat(9000)}the end\n`);

  const nowhere = new CardReaderAgent(new URL('file:///nowhere/A.app'));
  const answers = await outcomes([nowhere.start(), nowhere.ping(), nowhere.close()]);
  const program = '/nowhere/A.app/Contents/MacOS/card-reader-agent';
  const noFile = `AgentStartError: cannot start ${program}: there is no such file (ENOENT)`;
  assert.equal(answers[0], noFile);
  await assert.rejects(nowhere.start(), { code: 'ENOENT' }); // and may be tried again
});

test('certain answers, and a trace of them', { timeout: 20_000 }, async () => {
  // It takes three commands, each with its ping, and answers to each with what looks like answers.
  const path = script(`
    for answers in 'Ok: 1|Error: 2|Ok: 3' 'Error: x|Ok:' 'Ok:|Ok: 5|Error: fails'; do
      read -r command; read -r ping; ping=\${ping#Global:Ping}
      printf '%s\\n' "$answers" | tr '|' '\\n'; echo "Ok: $ping"; echo "Ok: $ping"
    done
    cat >/dev/null`);
  const lines = [];
  const trace = (time, direction, line) => lines.push(direction + line);
  const agent = new CardReaderAgent(path, { certain: true, trace });
  const logs = [];
  agent.on('log', (text) => logs.push(text));
  await agent.start();
  const commands = [agent.setLed('R', 'red'), agent.clearLed('R'), agent.beep('R')];
  assert.deepEqual(await outcomes(commands), ['3', '', 'CommandError: fails']);
  await agent.close();
  const expected = ['Ok: 1', 'Error: 2', 'Ok:', 'Error: x', 'Ok:', 'Ok:', 'Ok: 5', 'Ok:'];
  assert.deepEqual(logs.map((text) => text.replace(/^(Ok:)  .*/, '$1')), expected);
  const tokens = lines.filter((line) => line.startsWith('>Global:Ping '));
  assert.equal(new Set(tokens).size, 3);
  assert.deepEqual(lines.filter((line) => line[0] === '>' && !tokens.includes(line)), [
    '>R:SetLED red',
    '>R:ClearLED',
    '>R:Beep short 1',
  ]);
  assert.equal(lines.filter((line) => line[0] === '<').length, 14);
});
