// The package as npm packs and installs it, with no registry.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, writeFileSync } from 'node:fs';
import { readFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

const PACKAGE = fileURLToPath(new URL('..', import.meta.url));
const PROGRAM = `async function main({ CardReader, NoReaderError }, { VirtualReader }) {
  const reader = new CardReader('/nowhere');
  reader.start();
  await reader.waitForReader().catch((error) => console.log(error.name, error.code));
  await reader.beep().catch((error) => console.log(error instanceof NoReaderError));
  await reader.close();
  console.log(reader.state, typeof VirtualReader.start);
}`;
const ways = {
  'import.mjs': `${PROGRAM}
main(await import('card-reader-agent'), await import('card-reader-agent/testing'));`,
  'require.cjs': `${PROGRAM}
main(require('card-reader-agent'), require('card-reader-agent/testing'));`,
};

const run = (cwd, command, ...args) => execFileSync(command, args, { cwd, encoding: 'utf8' });
let npm = true;
try {
  run('.', 'npm', '--version');
} catch {
  npm = false;
}

test('installed it is complete', { skip: !npm && 'no npm', timeout: 110_000 }, async () => {
  const folder = `${mkdtempSync(`${tmpdir()}/`)}/a project`;
  mkdirSync(folder);
  writeFileSync(`${folder}/package.json`, '{ "private": true }');
  const packed = run(PACKAGE, 'npm', 'pack', '--offline', '--silent', '--pack-destination', folder);
  const [file] = packed.trim().split('\n');
  const flags = ['--offline', '--no-audit', '--no-fund', '--silent'];
  run(folder, 'npm', 'install', ...flags, `./${file}`);
  for (const [name, text] of Object.entries(ways)) {
    writeFileSync(`${folder}/${name}`, text);
    const said = run(folder, process.execPath, name);
    assert.equal(said, 'AgentStartError ENOENT\ntrue\nclosed function\n', name);
  }
  const installed = `${folder}/node_modules/card-reader-agent`;
  for (const part of ['README.md', 'index.d.ts', 'testing.d.ts']) {
    await readFile(`${installed}/${part}`);
  }
  const { version } = JSON.parse(await readFile(`${installed}/package.json`));
  const project = await readFile(`${PACKAGE}/../../CMakeLists.txt`, 'utf8');
  assert.match(project, new RegExp(`\\bVERSION ${version.replaceAll('.', '\\.')}\\b`));
});
