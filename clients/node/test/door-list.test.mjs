// The door list, kept in use through a shift: a program of its own, with the client's defaults.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { chmodSync, copyFileSync, mkdtempSync, readFileSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { createInterface } from 'node:readline';
import { describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { VirtualReader } from 'card-reader-agent/testing';

const EXAMPLE = fileURLToPath(new URL('../examples/door-list.mjs', import.meta.url));
const folder = mkdtempSync(`${tmpdir()}/`);

// As from a terminal: a process group of its own, to which Ctrl-C goes.
function start(agent, env) {
  const stdio = ['ignore', 'pipe', 'pipe'];
  const program = spawn(process.execPath, [EXAMPLE, agent], { env, stdio, detached: true });
  const lines = createInterface({ input: program.stdout })[Symbol.asyncIterator]();
  let errors = '';
  program.stderr.on('data', (text) => (errors += text));
  const ended = once(program, 'close');
  const says = async (...expected) => {
    for (const line of expected) assert.equal((await lines.next()).value?.trimEnd(), line);
  };
  // The rest of what it says, its status and its standard error.
  const ends = async () => {
    const rest = [];
    for (let line; (line = (await lines.next()).value) !== undefined; ) rest.push(line);
    return [rest.join('\n'), (await ended)[0], errors];
  };
  return { program, says, ends };
}

describe('the door list', { concurrency: true }, () => {
  test('a shift at the door', { timeout: 60_000 }, async (t) => {
    const virtual = await VirtualReader.start();
    const wrapper = `${folder}/agent`; // tells its process id
    writeFileSync(wrapper, `#!/bin/sh\necho $$ >"${folder}/pid"\nexec "$AGENT"\n`);
    chmodSync(wrapper, 0o700);
    const { program, says, ends } = start(wrapper, virtual.env);
    t.after(async () => {
      program.kill('SIGKILL');
      await virtual.close();
    });
    await says('searching', 'ready');
    await virtual.hold('3AB1234/26'); // held for many polls, and let in once
    await says('Ada, come in');
    await virtual.hold('00/8');
    await says('00: not listed');
    await virtual.expect('beep short 2');
    await virtual.remove();
    await virtual.expect('call SetLEDCtrl'); // to red again, so that no command meets the replug
    await virtual.replug();
    await says('searching the reader was connected anew', 'ready');
    await virtual.unplug();
    await says('searching the reader has gone');
    await virtual.plug();
    await says('ready');
    process.kill(Number(readFileSync(`${folder}/pid`)), 'SIGKILL');
    await says('restarting the agent was ended by SIGKILL', 'starting', 'searching', 'ready');
    await virtual.hang('BeepNow'); // for longer than the watchdog waits
    await virtual.hold('CDAB1234');
    await says('Grace, come in');
    await virtual.expect('enter BeepNow');
    await virtual.remove(); // in time for the agent that comes next
    await says('restarting the agent hangs');
    await virtual.release();
    await says('starting', 'searching', 'ready');
    process.kill(-program.pid, 'SIGINT');
    const [said, status, errors] = await ends();
    assert.deepEqual([said, status], ['closed ', 0]);
    assert.equal(errors, 'no answer within 10000 ms\nno reader is attached\n'); // a beep, a light
    await virtual.expect('led auto'); // the agent outlived the Ctrl-C
  });

  test('no library', { timeout: 60_000 }, async () => {
    const agent = `${folder}/card-reader-agent`;
    const bundle = `${process.env.BUILD_DIR}/CardReaderAgent.app`;
    copyFileSync(`${bundle}/Contents/MacOS/card-reader-agent`, agent);
    const [said, status] = await start(agent, process.env).ends();
    assert.equal(said.match(/^restarting the agent .*: .*libpcProxAPI/gm)?.length, 4, said);
    assert.match(said, /\nfailed the agent .*: .*libpcProxAPI/);
    assert.equal(status, 1);
  });
});
