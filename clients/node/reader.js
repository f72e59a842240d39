'use strict';
// A card reader that is kept in use: the agent is started again when it ends or hangs, commands
// have deadlines, and cards come and go.

const { EventEmitter } = require('node:events');
const { Readable } = require('node:stream');
const agents = require('./agent.js');
const { CardReaderAgent, CardReaderError, AgentStartError, AgentEndedError, callBack } = agents;

const DEFAULTS = {
  env: process.env,
  restartDelay: 500,
  restartDelayLimit: 30_000,
  giveUpAfter: 5,
  commandTimeout: 10_000,
  watchdogInterval: 5_000,
  watchdogTimeout: 15_000,
  onHang: 'restart',
  cardRemovedAfter: 600,
  onConnect: null,
  closeTimeout: 2_000,
  stderr: 'inherit',
  trace: null,
  certain: true,
};
const LONGEST = 2 ** 31 - 1; // ms that a timer can wait
const PASSING = ['EAGAIN', 'EMFILE', 'ENFILE', 'ENOMEM', 'ETXTBSY']; // a later start may succeed
const LATE = Symbol('late');

const ELSEWHERE = /^Action was for reader .*, but (there is no reader|the current reader is) /s;
const FEEDBACK =
  /^(?:Beeping|(?:Sett|Clear)ing LED state|Resetting card reader) failed with error (-?\d+)$/;
const CONFIGURATION = /^(?:Failed to (?:read|write) reader config|Call to [GS]et\w+ failed; .*)$/;

/** No reader is attached. */
class NoReaderError extends CardReaderError {}

/** Another reader, or the same one anew, was attached when the command's turn came. */
class ReaderChangedError extends CardReaderError {}

/** The reader or its library failed; `number` is the library's, null for a configuration. */
class ReaderFailedError extends CardReaderError {
  constructor(message, number) {
    super(message);
    this.number = number;
  }
}

/** The agent did not understand the command; the message is the agent's. */
class RejectedError extends CardReaderError {}

/** The agent knows no settings of these names, and has applied the others. */
class UnknownSettingsError extends CardReaderError {
  constructor(names) {
    super(`unknown settings: ${names.join(', ')}`);
    this.names = names;
  }
}

/** No answer came in time. The command may still be carried out. */
class CommandTimeoutError extends CardReaderError {}

// The agent's words for a command that was not carried out, as one of the errors above.
function classified(words) {
  const number = FEEDBACK.exec(words)?.[1];
  if (number) return new ReaderFailedError(words, Number(number));
  if (CONFIGURATION.test(words)) return new ReaderFailedError(words, null);
  const elsewhere = ELSEWHERE.exec(words)?.[1];
  if (!elsewhere) return new RejectedError(words);
  return elsewhere.startsWith('there') ? new NoReaderError(words) : new ReaderChangedError(words);
}

// Calls back after so many milliseconds, and not before what came meanwhile was read, however busy
// the host has been. Returns what prevents it.
function after(ms, action) {
  if (ms > LONGEST) return () => {};
  let immediate;
  const timer = setTimeout(() => (immediate = setImmediate(action)), ms);
  return () => {
    clearTimeout(timer);
    clearImmediate(immediate);
  };
}

// What begin() promises; rejects with LATE, or with the signal's reason, when that comes first.
async function bounded(begin, timeout, signal) {
  if (!(timeout >= 0)) throw new RangeError(`Not a time in milliseconds: ${timeout}`);
  signal?.throwIfAborted();
  const promise = begin();
  let abort, cancel;
  try {
    return await new Promise((resolve, reject) => {
      promise.then(resolve, reject);
      abort = () => reject(signal.reason);
      signal?.addEventListener('abort', abort);
      cancel = after(timeout, () => reject(LATE));
    });
  } finally {
    signal?.removeEventListener('abort', abort);
    cancel();
  }
}

class CardReader extends EventEmitter {
  #path;
  #options = { ...DEFAULTS };
  #state = 'starting';
  #reason = null;
  #agent = null; // the one there is now
  #failures = 0; // agents in a row that ended without having answered
  #error = null; // why the state is failed
  #delay; // before the next agent, ms
  #card = null;
  #collectors = new Set(); // of log texts
  #waiters = new Set(); // for a reader
  #iterators = new Set();
  #closing = false;
  #closed = null; // settled when it is
  // What prevents what would come later:
  #cancelRestart = () => {};
  #cancelWatch = () => {};
  #cancelGone = () => {};

  constructor(path, options = {}) {
    super();
    for (const [name, value] of Object.entries(options)) {
      if (!(name in DEFAULTS)) throw new TypeError(`There is no option '${name}'`);
      if (value === undefined) continue;
      if (typeof DEFAULTS[name] === 'number' && !(value >= 0)) {
        throw new RangeError(`The option '${name}' must be a number from 0, not ${value}`);
      }
      this.#options[name] = value;
    }
    const { onHang, stderr } = this.#options;
    if (!['restart', 'wait'].includes(onHang)) throw new TypeError(`onHang can't be '${onHang}'`);
    if (!['inherit', 'ignore'].includes(stderr) && typeof stderr !== 'function') {
      throw new TypeError(`stderr can't be '${stderr}'`);
    }
    this.#path = agents.programOf(path);
    this.#delay = this.#options.restartDelay;
  }

  get state() {
    return this.#state;
  }

  get reason() {
    return this.#reason;
  }

  get name() {
    return this.#agent?.reader ?? null;
  }

  get card() {
    return this.#card;
  }

  get pid() {
    return this.#agent?.pid;
  }

  start() {
    if (this.#agent || this.#closing || this.#state !== 'starting') {
      throw new Error('The reader was started before');
    }
    this.#launch();
  }

  close() {
    this.#closing = true;
    return (this.#closed ??= this.#end());
  }

  [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    return this.close();
  }

  [Symbol.asyncIterator]() {
    const events = new Readable({ objectMode: true, read() {} });
    if (this.#state === 'failed' || this.#state === 'closed') events.push(null);
    else this.#iterators.add(events);
    events.once('close', () => this.#iterators.delete(events));
    return events[Symbol.asyncIterator]();
  }

  async ping(text = '', limits = {}) {
    return await this.#run((agent) => agent.ping(text), limits);
  }

  async beep(count = 1, length = 'short', limits = {}) {
    await this.#command((agent) => agent.beep(agent.reader, count, length), limits);
  }

  async setLed(color, limits = {}) {
    await this.#command((agent) => agent.setLed(agent.reader, color), limits);
  }

  async clearLed(limits = {}) {
    await this.#command((agent) => agent.clearLed(agent.reader), limits);
  }

  async resetConfig(limits = {}) {
    await this.#command((agent) => agent.resetConfig(agent.reader), limits);
  }

  async configure(settings, limits = {}) {
    const words = 'Ignoring unexpected setting ';
    const unknown = new Set();
    const collect = (text) => {
      for (const [type, values] of Object.entries(settings)) {
        for (const name of Object.keys(values)) {
          const setting = `${type}.${name}`;
          if (text.startsWith(`${words}${setting}=`) || text === `${words}type ${type}`) {
            unknown.add(setting);
          }
        }
      }
    };
    this.#collectors.add(collect);
    try {
      await this.#command((agent) => agent.readerConfig(agent.reader, settings), limits);
    } finally {
      this.#collectors.delete(collect);
    }
    if (unknown.size) throw new UnknownSettingsError([...unknown].sort());
  }

  async waitForReader({ timeout = Infinity, signal } = {}) {
    let waiter;
    const ready = () =>
      new Promise((resolve, reject) => {
        waiter = { resolve, reject };
        this.#waiters.add(waiter);
        this.#tellWaiters();
      });
    try {
      await bounded(ready, timeout, signal);
    } catch (error) {
      throw error === LATE ? new CommandTimeoutError(`no reader within ${timeout} ms`) : error;
    } finally {
      this.#waiters.delete(waiter);
    }
  }

  async #command(send, limits) {
    const { name } = this;
    if (!name) throw new NoReaderError('no reader is attached');
    if (name.includes(':')) {
      throw new RejectedError(`a name with a colon can't be addressed: ${name}`);
    }
    await this.#run(send, limits);
  }

  async #run(send, { timeout = this.#options.commandTimeout, signal }) {
    const agent = this.#agent;
    if (!agent) throw new AgentEndedError({});
    try {
      return await bounded(() => send(agent), timeout, signal);
    } catch (error) {
      if (error === LATE) throw new CommandTimeoutError(`no answer within ${timeout} ms`);
      throw error instanceof agents.CommandError ? classified(error.message) : error;
    }
  }

  async #launch() {
    const { env, stderr, trace, certain } = this.#options;
    const agent = new CardReaderAgent(this.#path, { env, stderr, trace, certain });
    this.#agent = agent;
    const started = performance.now();
    agent.on('attached', () => this.#connect(agent, null));
    agent.on('replaced', () => this.#connect(agent, 'the reader was connected anew'));
    agent.on('gone', () => {
      this.#cardRemoved();
      this.#become('searching', 'the reader has gone');
    });
    agent.on('card', (id) => this.#report(id));
    agent.on('log', (text) => {
      for (const collect of this.#collectors) collect(text);
      this.#tell('log', { text });
    });
    agent.on('end', (status) => {
      this.#lose(new AgentEndedError(status), performance.now() - started);
    });
    try {
      await agent.start();
    } catch (error) {
      return this.#lose(error, 0);
    }
    this.#watch(agent);
    const answered = () => this.#state === 'starting' && this.#become('searching');
    agent.ping().then(answered, () => {}); // its end is told otherwise
  }

  async #connect(agent, reason) {
    const { name } = this;
    const here = () => agent === this.#agent && agent.reader === name && !this.#closing;
    this.#cardRemoved();
    this.#become('searching', reason);
    if (this.#options.onConnect && here()) {
      try {
        await this.#options.onConnect(this);
      } catch (error) {
        if (!here()) return;
        this.#reason = `the on-connect function failed: ${error?.message ?? error}`;
        return this.#tell('log', { text: this.#reason });
      }
    }
    if (here()) this.#become('ready');
  }

  #report(id) {
    this.#tell('poll', { id });
    if (id !== this.#card) {
      this.#cardRemoved();
      this.#card = id;
      this.#tell('card', { id });
    }
    this.#keepCard();
  }

  // While a command is under way the agent looks for no card, so that time does not count.
  #keepCard() {
    this.#cancelGone();
    this.#cancelGone = after(this.#options.cardRemovedAfter, () => {
      if (this.#agent?.pending) this.#keepCard();
      else this.#cardRemoved();
    });
  }

  #cardRemoved() {
    this.#cancelGone();
    const id = this.#card;
    this.#card = null;
    if (id !== null) this.#tell('cardRemoved', { id });
  }

  // Counts checks instead of reading a clock, so that a host that slept or was busy blames nobody.
  #watch(agent) {
    const { watchdogInterval: interval, watchdogTimeout: timeout, onHang } = this.#options;
    const period = Math.min(interval || timeout, timeout) / 5;
    let unchanged = 0; // ms
    let before = {};
    const check = () => {
      const now = { busy: agent.pending > 0, answered: agent.answered };
      const same = now.busy === before.busy && now.answered === before.answered;
      before = now;
      unchanged = same ? unchanged + period : 0;
      if (now.busy && unchanged >= timeout && unchanged - period < timeout) {
        if (onHang === 'restart') agent.kill('the agent hangs');
        else this.#tell('hang', {});
      }
      if (!now.busy && interval && unchanged >= interval) agent.ping().catch(() => {});
      this.#cancelWatch = after(period, check);
    };
    check();
  }

  #lose(error, ran) {
    this.#cancelWatch();
    this.#agent = null;
    this.#cardRemoved();
    if (this.#closing) return;
    const { giveUpAfter, restartDelay, restartDelayLimit } = this.#options;
    this.#failures = this.#state === 'starting' ? this.#failures + 1 : 0;
    const hopeless = error instanceof AgentStartError && !PASSING.includes(error.code);
    if (hopeless || this.#failures >= giveUpAfter) {
      this.#error = error;
      return this.#become('failed', error.message);
    }
    const delay = ran > restartDelayLimit ? restartDelay : this.#delay;
    this.#delay = Math.min(delay * 2, restartDelayLimit);
    this.#cancelRestart = after(delay, () => {
      this.#become('starting');
      if (!this.#closing) this.#launch();
    });
    this.#become('restarting', error.message);
  }

  async #end() {
    this.#cancelRestart();
    const agent = this.#agent;
    if (agent) {
      const cancelKill = after(this.#options.closeTimeout, () => agent.kill());
      await agent.close();
      cancelKill();
    }
    this.#become('closed');
  }

  #become(state, reason = null) {
    const previous = this.#state;
    this.#state = state;
    this.#reason = reason;
    if (state === previous) return;
    this.#tell('state', { state, previous, reason });
    this.#tellWaiters();
    if (state !== 'failed' && state !== 'closed') return;
    for (const events of this.#iterators) events.push(null);
    this.#iterators.clear();
    // For those who wait with once(): an error that nobody listens to would end the host.
    if (state === 'failed' && this.listenerCount('error')) {
      this.#tell('error', { error: this.#error });
    }
  }

  #tellWaiters() {
    const { state } = this;
    if (state === 'ready') for (const { resolve } of this.#waiters) resolve();
    const closed = () => new AgentEndedError({ reason: 'the reader was closed' });
    const error = state === 'failed' ? this.#error : state === 'closed' ? closed() : null;
    if (error) for (const { reject } of this.#waiters) reject(error);
  }

  #tell(type, told) {
    callBack(() => this.emit(type, ...Object.values(told)));
    for (const events of this.#iterators) events.push({ type, ...told });
  }
}

module.exports = {
  CardReader,
  NoReaderError,
  ReaderChangedError,
  ReaderFailedError,
  RejectedError,
  UnknownSettingsError,
  CommandTimeoutError,
};
