'use strict';
// For tests of applications: a virtual reader, and a stub without any process.

const { execFile, spawn } = require('node:child_process');
const { once } = require('node:events');
const { mkdtemp, rm } = require('node:fs/promises');
const { tmpdir } = require('node:os');
const { join } = require('node:path');
const { createInterface } = require('node:readline');
const { promisify } = require('node:util');
require('./index.js');
const { AgentEndedError } = require('./errors.js');
const { CardReader, createAgent } = require('./reader.js');

const END_LIMIT_MS = 5_000;

class VirtualReader {
  #program;
  #folder;
  #process;

  static async start({ program, plugged = true } = {}) {
    const reader = new VirtualReader();
    reader.#program = program ?? process.env.VIRTUAL_READER ?? 'virtual-reader';
    reader.#folder = await mkdtemp(join(tmpdir(), 'reader-'));
    reader.env = { ...process.env, VIRTUAL_READER_SOCKET: join(reader.#folder, 'reader.sock') };
    try {
      await reader.#launch(plugged);
      return reader;
    } catch (error) {
      await reader.close();
      throw new Error(`cannot start the virtual reader ${reader.#program}: ${error.message}`);
    }
  }

  // A pipe is its standard input, whose end ends it: a test that dies leaves none behind.
  async #launch(plugged) {
    const options = ['--socket', this.env.VIRTUAL_READER_SOCKET];
    if (!plugged) options.push('--unplugged');
    this.#process = spawn(this.#program, options, { stdio: ['pipe', 'pipe', 'inherit'] });
    await once(this.#process, 'spawn');
    const { stdin, stdout } = this.#process;
    stdin.on('error', () => {}); // the end of its output is what is reported
    stdin.write('echo "ready"\n');
    const lines = createInterface({ input: stdout });
    for await (const line of lines) if (line === '= ready') break;
    if (stdout.readableEnded) throw new Error('it exited');
    stdout.resume(); // its event log has the same
  }

  async execute(verb) {
    const options = ['--socket', this.env.VIRTUAL_READER_SOCKET, '--execute', verb];
    try {
      const { stdout } = await promisify(execFile)(this.#program, options, { maxBuffer: Infinity });
      return stdout.trimEnd();
    } catch (error) {
      throw new Error(`${verb}: ${error.stderr?.trim() || error.message}`);
    }
  }

  async events(count = 1_000_000) {
    const text = await this.execute(`events ${count}`);
    return text ? text.split('\n') : [];
  }

  [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    return this.close();
  }

  async close() {
    if (this.#process.pid && this.#process.exitCode === null && this.#process.signalCode === null) {
      const limit = setTimeout(() => this.#process.kill('SIGKILL'), END_LIMIT_MS);
      this.#process.stdin.end();
      await once(this.#process, 'close');
      clearTimeout(limit);
    }
    await rm(this.#folder, { recursive: true, force: true });
  }
}

const within = (limit) => (limit?.within === undefined ? '' : ` within ${limit.within}`);
const VERBS = {
  plug: () => 'plug',
  unplug: () => 'unplug',
  replug: () => 'replug',
  queue: (...cards) => `card queue ${cards.join(' ')}`,
  hold: (card) => `card hold ${card}`,
  remove: () => 'card remove',
  fail: (call, { error, when = '' } = {}) =>
    `fail ${call}${error === undefined ? '' : ` error ${error}`} ${when}`,
  hang: (call) => `hang ${call}`,
  delay: (call, ms) => `delay ${call} ${ms}`,
  release: () => 'release',
  clear: () => 'clear',
  expect: (pattern, limit) => `expect ${pattern}${within(limit)}`,
  expectNo: (pattern, limit) => `expect no ${pattern}${within(limit)}`,
};
for (const [name, verb] of Object.entries(VERBS)) {
  VirtualReader.prototype[name] = async function (...args) {
    await this.execute(verb(...args));
  };
}

// A CardReader without an agent: the test says what the reader does. Every command succeeds, but the
// next one after fail().
class StubReader extends CardReader {
  commands = []; // that the application sent, such as 'Beep short 2'
  #agent = null;
  #handlers = null;
  #failure = null;
  #connections = 0;

  constructor(options) {
    super('stub', options);
  }

  [createAgent](handlers) {
    const send = async (line) => {
      if (line === 'Global:Ping') return {}; // the client's own
      const words = line.slice(line.indexOf(':') + 1);
      const text = words.startsWith('Ping') ? words.slice('Ping'.length) : '';
      const answer = { kind: this.#failure ? 'Error' : 'Ok', text: this.#failure ?? text };
      this.commands.push(words);
      this.#failure = null;
      return { answer, logs: [] };
    };
    const end = (reason) => handlers.end(new AgentEndedError(reason));
    const close = () => process.nextTick(end);
    this.#handlers = handlers;
    this.#agent = { reader: null, isBusy: true, send, end, close }; // busy: a card stays
    return this.#agent;
  }

  plug(name = `Dev${++this.#connections}-STUB`) {
    const previous = this.#agent.reader;
    this.#agent.reader = name;
    this.#handlers.reader(name, previous);
  }

  unplug() {
    this.plug(null);
  }

  hold(id) {
    this.#handlers.card(id);
  }

  remove() {
    this.#handlers.card(null);
  }

  // The agent's words behind "Error: ", as docs/protocol.md has them.
  fail(message) {
    this.#failure = message;
  }

  kill(reason = 'the agent was killed by SIGKILL') {
    this.#agent.end(reason);
  }
}

module.exports = { VirtualReader, StubReader };
