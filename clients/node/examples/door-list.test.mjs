// The door list tested as a host's own program. $AGENT and $VIRTUAL_READER are the programs:
//   node --test door-list.test.mjs
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { test } from 'node:test';
import { VirtualReader } from 'card-reader-agent/testing';

test('who is on the list gets a green light and one beep, others two', async (t) => {
  const virtual = await VirtualReader.start();
  const example = new URL('door-list.mjs', import.meta.url).pathname;
  const door = spawn(process.execPath, [example, process.env.AGENT], { env: virtual.env });
  t.after(async () => {
    door.kill('SIGINT');
    assert.deepEqual(await once(door, 'exit'), [0, null]);
    await virtual.close();
  });
  await virtual.expect('led red');
  await virtual.hold('3AB1234/26');
  await virtual.expect('led green');
  await virtual.expect('beep short 1');
  await virtual.hold('00/8');
  await virtual.expect('led red');
  await virtual.expect('beep short 2');
  await virtual.expectNo('beep');
});
