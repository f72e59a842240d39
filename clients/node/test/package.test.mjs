// The package as npm packs and installs it, with no registry, and as a bundler puts it into a program.

import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { mkdtempSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

const cwd = mkdtempSync(`${tmpdir()}/a project `);
const run = (command, ...args) => execFileSync(command, args, { cwd, encoding: 'utf8' });
const lacks = (command) => spawnSync(command, ['--version']).error && `${command} is not installed`;
const USE = `const reader = new CardReader('/nowhere');
  reader.start();
  reader.waitFor('ready').catch((error) => console.log(error.name, error instanceof AgentStartError));`;
const OUTPUT = 'AgentStartError true\n';
const PROGRAMS = {
  'import.mjs': `import { CardReader, AgentStartError } from 'card-reader-agent'; ${USE}`,
  'require.cjs': `const { CardReader, AgentStartError } = require('card-reader-agent'); ${USE}`,
  'both.mjs': `import { createRequire } from 'node:module'; import * as client from 'card-reader-agent';
    const required = createRequire(import.meta.url)('card-reader-agent');
    const { CardReader } = required, { AgentStartError } = client; ${USE}
    for (const name in required) if (client[name] !== required[name]) console.log(name);`,
};

test('packed, installed and bundled', { skip: lacks('npm'), timeout: 110_000 }, () => {
  for (const [file, text] of Object.entries({ ...PROGRAMS, 'package.json': '{}' })) writeFileSync(`${cwd}/${file}`, text);
  const packed = run('npm', 'pack', '--offline', '--silent', fileURLToPath(new URL('..', import.meta.url)));
  run('npm', 'install', '--offline', '--no-audit', '--no-fund', '--silent', `./${packed.trim()}`);
  for (const file in PROGRAMS) assert.equal(run(process.execPath, file), OUTPUT, file);
  if (lacks('esbuild')) return;
  for (const [file, format, out] of [['import.mjs', 'esm', 'a.mjs'], ['import.mjs', 'cjs', 'b.cjs'], ['require.cjs', 'cjs', 'c.cjs']]) {
    run('esbuild', file, '--bundle', '--minify', '--platform=node', `--format=${format}`, `--outfile=${out}`, '--log-level=error');
    assert.equal(run(process.execPath, out), OUTPUT, out);
  }
});
