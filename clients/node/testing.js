'use strict';
// A virtual reader for tests: starts one, and tells it what to do.

const { execFile, spawn } = require('node:child_process');
const { once } = require('node:events');
const { mkdtemp, rm } = require('node:fs/promises');
const { tmpdir } = require('node:os');
const { join } = require('node:path');
const { createInterface } = require('node:readline');

const PATIENCE = 5_000; // ms for its end

class VirtualReader {
  #program;
  #folder;
  #process;
  #closed = null;

  static async start({ program, plugged = true } = {}) {
    program ??= process.env.VIRTUAL_READER ?? 'virtual-reader';
    const reader = new VirtualReader();
    reader.#program = program;
    reader.#folder = await mkdtemp(join(tmpdir(), 'reader-'));
    const socket = join(reader.#folder, 'reader.sock');
    reader.env = { ...process.env, VIRTUAL_READER_SOCKET: socket };
    try {
      await reader.#launch(plugged);
    } catch (error) {
      await rm(reader.#folder, { recursive: true, force: true });
      throw new Error(`cannot start the virtual reader ${program}: ${error.message}`);
    }
    return reader;
  }

  // A pipe is its standard input, whose end ends it: a test that dies leaves none behind.
  async #launch(plugged) {
    const options = ['--socket', this.env.VIRTUAL_READER_SOCKET];
    if (!plugged) options.push('--unplugged');
    this.#process = spawn(this.#program, options, { stdio: ['pipe', 'pipe', 'inherit'] });
    await once(this.#process, 'spawn');
    const { stdin, stdout } = this.#process;
    stdin.on('error', () => {}); // its end is told by its output
    stdin.write('echo "here"\n');
    const lines = createInterface({ input: stdout });
    for await (const line of lines) if (line === '= here') break;
    if (stdout.readableEnded) throw new Error('it ended at once');
    stdout.resume(); // what it does stands in its record
  }

  async execute(verb) {
    const options = ['--socket', this.env.VIRTUAL_READER_SOCKET, '--execute', verb];
    const { error, answer, words } = await new Promise((resolve) => {
      execFile(this.#program, options, { maxBuffer: Infinity }, (error, answer, words) =>
        resolve({ error, answer, words }),
      );
    });
    if (error) throw new Error(`${verb}: ${words.trim() || error.message}`);
    return answer.trimEnd();
  }

  async plug() {
    await this.execute('plug');
  }

  async unplug() {
    await this.execute('unplug');
  }

  async replug() {
    await this.execute('replug');
  }

  async queue(...cards) {
    await this.execute(`card queue ${cards.join(' ')}`);
  }

  async hold(card) {
    await this.execute(`card hold ${card}`);
  }

  async remove() {
    await this.execute('card remove');
  }

  async fail(call, { error, when } = {}) {
    await this.execute(`fail ${call}${error === undefined ? '' : ` error ${error}`} ${when ?? ''}`);
  }

  async hang(call) {
    await this.execute(`hang ${call}`);
  }

  async delay(call, ms) {
    await this.execute(`delay ${call} ${ms}`);
  }

  async release() {
    await this.execute('release');
  }

  async clear() {
    await this.execute('clear');
  }

  async expect(pattern, { within } = {}) {
    await this.execute(`expect ${pattern}${within === undefined ? '' : ` within ${within}`}`);
  }

  async expectNo(pattern, { within } = {}) {
    await this.execute(`expect no ${pattern}${within === undefined ? '' : ` within ${within}`}`);
  }

  async events(count = 1_000_000) {
    const text = await this.execute(`events ${count}`);
    return text ? text.split('\n') : [];
  }

  close() {
    return (this.#closed ??= this.#end());
  }

  [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    return this.close();
  }

  async #end() {
    if (this.#process.exitCode === null && this.#process.signalCode === null) {
      const late = setTimeout(() => this.#process.kill('SIGKILL'), PATIENCE);
      this.#process.stdin.end();
      await once(this.#process, 'close');
      clearTimeout(late);
    }
    await rm(this.#folder, { recursive: true, force: true });
  }
}

module.exports = { VirtualReader };
