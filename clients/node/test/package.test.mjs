// The package as npm packs and installs it, with no registry, and as a bundler puts it into a program.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, symlinkSync, writeFileSync } from 'node:fs';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { folder } from './player.mjs';

const PACKAGE = fileURLToPath(new URL('..', import.meta.url));
const PROGRAM = `async function main({ CardReader, NoReaderError }) {
  const reader = new CardReader('/nowhere');
  reader.start();
  await reader.waitFor('ready').catch(({ name, code, systemCode }) => console.log(name, code, systemCode));
  await reader.beep().catch((error) => console.log(error.name, error instanceof NoReaderError));
  await reader.close();
  console.log(reader.state);
}\n`;
const programs = {
  'import.mjs': `import * as client from 'card-reader-agent'; ${PROGRAM} main(client);`,
  'require.cjs': `${PROGRAM} main(require('card-reader-agent'));`,
};
const OUTPUT = 'AgentStartError AGENT_START ENOENT\nNoReaderError true\nclosed\n';

const run = (cwd, command, ...args) => execFileSync(command, args, { cwd, encoding: 'utf8' });
const lacks = (command) => {
  try {
    run('.', command, '--version');
  } catch {
    return `${command} is not installed`;
  }
};
const project = (name) => {
  mkdirSync(`${folder}/${name}/node_modules`, { recursive: true });
  writeFileSync(`${folder}/${name}/package.json`, '{ "private": true }');
  for (const [file, text] of Object.entries(programs)) writeFileSync(`${folder}/${name}/${file}`, text);
  return `${folder}/${name}`;
};

test('packed and installed', { skip: lacks('npm'), timeout: 110_000 }, () => {
  const cwd = project('a project');
  const packed = run(PACKAGE, 'npm', 'pack', '--offline', '--silent', '--pack-destination', cwd);
  const flags = ['--offline', '--no-audit', '--no-fund', '--silent'];
  run(cwd, 'npm', 'install', ...flags, `./${packed.trim()}`);
  for (const file of Object.keys(programs)) assert.equal(run(cwd, process.execPath, file), OUTPUT);
  const same = `const required = require('card-reader-agent');
    const { VirtualReader, StubReader } = require('card-reader-agent/testing');
    import('card-reader-agent').then((imported) => console.log(typeof VirtualReader.start,
      Object.keys(required).every((name) => imported[name] === required[name]),
      new StubReader() instanceof imported.CardReader));`;
  assert.equal(run(cwd, process.execPath, '-e', same), 'function true true\n');
  const { version } = JSON.parse(readFileSync(`${PACKAGE}/package.json`));
  const build = readFileSync(`${PACKAGE}/../../CMakeLists.txt`, 'utf8');
  assert.match(build, new RegExp(`\\bVERSION ${version.replaceAll('.', '\\.')}\\b`));
});

test('bundled and minified', { skip: lacks('esbuild') }, () => {
  const cwd = project('bundle');
  symlinkSync(PACKAGE, `${cwd}/node_modules/card-reader-agent`);
  for (const [file, format] of [['import.mjs', 'esm'], ['import.mjs', 'cjs'], ['require.cjs', 'cjs']]) {
    const outfile = `${format}-${file}.${format === 'esm' ? 'mjs' : 'cjs'}`;
    run(cwd, 'esbuild', file, '--bundle', '--minify', '--platform=node', `--format=${format}`, `--outfile=${outfile}`, '--log-level=error');
    assert.equal(run(cwd, process.execPath, outfile), OUTPUT, outfile);
  }
});
