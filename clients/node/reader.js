'use strict';
// A card reader that is kept in use: the agent is restarted when it ends or hangs, commands have
// time limits, and a card appears once and is removed once.

const { events, url } = require('./builtins.js');
const { Agent, callBack } = require('./agent.js');
const { Countdown } = require('./countdown.js');
const errors = require('./errors.js');
const { checkLimits, checkOptions, quote } = require('./options.js');
const { configCommand, errorOf, unknownSettings } = require('./protocol.js');

const { AgentEndedError, AgentStartError, CommandTimeoutError, NoReaderError } = errors;
const STATES = ['starting', 'searching', 'ready', 'restarting', 'failed', 'closed'];
const RETRYABLE = ['EAGAIN', 'EMFILE', 'ENFILE', 'ENOMEM', 'ETXTBSY']; // a later start may succeed
const NOT_RESPONDING = 'the agent is not responding';
const TIMED_OUT = Symbol('timed out');
const ON_CONNECT_LIMIT_MS = 2000; // for the function that was told to stop
const createAgent = Symbol('createAgent'); // for the stub reader

// The agent's program, also where its bundle is named.
function programOf(path) {
  if (path instanceof URL) path = url.fileURLToPath(path);
  if (!path || typeof path !== 'string') {
    throw new TypeError(`invalid path: expected a string or a file URL, got ${quote(path)}`);
  }
  return path.replace(/\.app\/*$/, '$&/Contents/MacOS/card-reader-agent');
}

// Begins and awaits. Rejects when the time is over, or with the signal's reason.
async function limited(begin, limits, problem, byDefault = Infinity) {
  const { timeout, signal } = checkLimits(limits, byDefault);
  signal?.throwIfAborted();
  const promise = begin();
  let abort, countdown;
  try {
    return await new Promise((resolve, reject) => {
      abort = () => reject(signal.reason);
      countdown = new Countdown(timeout, () => reject(TIMED_OUT)).run();
      signal?.addEventListener('abort', abort);
      promise.then(resolve, reject);
    });
  } catch (error) {
    throw error === TIMED_OUT ? new CommandTimeoutError(`${problem} within ${timeout} ms`) : error;
  } finally {
    signal?.removeEventListener('abort', abort);
    countdown.pause();
  }
}

class CardReader extends events.EventEmitter {
  #path;
  #options;
  #state = 'starting';
  #reason = null;
  #error = null; // why there will be no reader any more, if the state is failed or closed
  #agent = null; // the one that runs
  #isStarted = false;
  #failures = 0; // agents in a row that ended without an answer
  #delay; // before the next agent, ms
  #card = null;
  #connection = null; // an AbortController, as long as the reader is connected
  #connecting = null; // settled when the on-connect function has ended
  #events = new events.EventEmitter().setMaxListeners(0); // each `event`, for loops and waits
  #isClosing = false;
  #closed = null; // settled when it is
  #agentEnded = () => {};
  #watchdog = null;
  #removal = null; // of the card: runs while no command is under way
  #restart = null;

  constructor(path, options = {}) {
    super({ captureRejections: true });
    this.#options = checkOptions(options);
    this.#path = programOf(path);
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
    if (this.#isStarted || this.#isClosing) throw new Error('already started');
    this.#isStarted = true;
    this.#launch();
  }

  async close({ signal } = {}) {
    if (!this.#isClosing) {
      this.#isClosing = true;
      this.#closed = this.#close();
    }
    await limited(() => this.#closed, { signal });
  }

  [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    return this.close();
  }

  // An asynchronous listener that fails costs nothing but a warning.
  [Symbol.for('nodejs.rejection')](error, event) {
    process.emitWarning(`a listener for '${event}' failed: ${error?.stack ?? error}`);
  }

  async *[Symbol.asyncIterator]() {
    if (this.#state === 'closed') return;
    if (this.#error) throw this.#error;
    for await (const [event] of events.on(this.#events, 'event')) {
      yield event;
      if (event.state === 'closed') return;
    }
  }

  async ping(text = '', limits) {
    // The agent's answer begins with the space before the text.
    return (await this.#run(`Global:Ping ${text}`, limits)).answer.text.slice(1);
  }

  // Also beep({ count, length, timeout, signal }).
  async beep(count = 1, length = 'short') {
    const options = typeof count === 'object' ? count : { count, length };
    const { count: times = 1, length: kind = 'short', ...limits } = options;
    await this.#command(`Beep ${kind} ${times}`, limits);
  }

  async setLed(color, limits) {
    await this.#command(`SetLED ${color}`, limits);
  }

  async clearLed(limits) {
    await this.#command('ClearLED', limits);
  }

  async resetConfig(limits) {
    await this.#command('ResetConfig', limits);
  }

  async configure(settings, limits) {
    const { logs } = await this.#command(configCommand(settings), limits);
    const unknown = unknownSettings(settings, logs);
    if (unknown.length) throw new errors.UnknownSettingsError(unknown);
  }

  async waitFor(state, limits) {
    if (!STATES.includes(state)) {
      throw new TypeError(`invalid state: expected ${STATES.join(', ')}, got ${quote(state)}`);
    }
    if (this.#state !== state) await this.#nextTime(state, limits);
  }

  async waitForConnection(limits) {
    return await this.#nextTime('ready', limits);
  }

  async #nextTime(state, limits = {}) {
    let check = () => {};
    const begin = () =>
      new Promise((resolve, reject) => {
        check = (event) => {
          if (event?.state === state) resolve(this.name);
          else if (this.#error) reject(this.#error);
        };
        this.#events.on('event', check);
        check();
      });
    try {
      return await limited(begin, limits, `the state was not ${state}`);
    } finally {
      this.#events.off('event', check);
    }
  }

  async #command(words, limits) {
    const { name } = this;
    if (!name) throw new NoReaderError('no reader is attached');
    if (name.includes(':')) {
      throw new errors.RejectedError(`cannot address a reader with a colon in its name: ${name}`);
    }
    return await this.#run(`${name}:${words}`, limits, true);
  }

  // Errors are made here, where the stack still names the caller that awaits them.
  async #run(line, limits = {}, isForReader = false) {
    const begin = async () => {
      if (!this.#agent) throw new AgentEndedError();
      return await this.#agent.send(line, isForReader);
    };
    const command = await limited(begin, limits, 'no answer', this.#options.commandTimeout);
    const { answer, end } = command;
    if (end) throw new AgentEndedError(end.message, end.status, end.signal);
    if (answer.kind === 'Error') throw errorOf(answer.text);
    return command;
  }

  [createAgent](handlers) {
    return new Agent(this.#path, this.#options, handlers);
  }

  #launch() {
    const started = performance.now();
    const agent = this[createAgent]({
      pace: () => this.#pace(agent),
      reader: (name, previous) => this.#changeReader(name, previous),
      card: (id) => this.#report(id),
      log: (text) => this.#tell('log', { text }),
      end: (error) => this.#lose(error, performance.now() - started),
    });
    this.#agent = agent;
    const onAnswer = ({ end }) => end || this.#state !== 'starting' || this.#become('searching');
    agent.send('Global:Ping').then(onAnswer);
  }

  // Restarts the watchdog, and counts the idle time: that in which no command is under way.
  #pace(agent) {
    const { watchdogInterval, watchdogTimeout } = this.#options;
    this.#watchdog?.pause();
    if (agent.isBusy) {
      this.#removal?.pause();
      this.#watchdog = new Countdown(watchdogTimeout, () => agent.end(NOT_RESPONDING)).run();
    } else {
      this.#removal?.run();
      const ping = () => agent.send('Global:Ping');
      this.#watchdog = new Countdown(watchdogInterval || Infinity, ping).run();
    }
  }

  #changeReader(name, previous) {
    const reason = previous && `the reader was ${name ? 'reconnected' : 'disconnected'}`;
    this.#disconnect(new errors.ReaderChangedError(reason));
    const connection = new AbortController();
    if (name && !this.#isClosing) this.#connection = connection;
    this.#become('searching', reason);
    if (this.#connection !== connection) return; // or a listener has closed the reader
    if (!this.#options.onConnect) this.#become('ready');
    else {
      const connecting = this.#connect(connection.signal, this.#connecting);
      this.#connecting = connecting;
      connecting.then(() => {
        if (this.#connecting === connecting) this.#connecting = null;
      });
    }
  }

  // Waits for the on-connect function of the connection before, which was told to stop. Without one
  // the function is called at once: before a listener hears of a card.
  async #connect(signal, before) {
    if (before) await limited(() => before, { timeout: ON_CONNECT_LIMIT_MS }).catch(() => {});
    if (signal.aborted) return;
    try {
      await this.#options.onConnect(this, { signal });
      if (!signal.aborted) this.#become('ready');
    } catch (error) {
      const text = `the on-connect function failed: ${error?.message ?? error}`;
      if (!signal.aborted) this.#tell('log', { text });
    }
  }

  #disconnect(error) {
    this.#connection?.abort(error);
    this.#connection = null;
    this.#removeCard();
  }

  // A card that was reported; null for none.
  #report(id) {
    if (id === null) return this.#removeCard();
    if (id !== this.#card) {
      this.#removeCard();
      this.#card = id;
      this.#tell('card', { id });
    }
    this.#tell('poll', { id });
    this.#removal?.pause();
    this.#removal = new Countdown(this.#options.cardRemovedAfter, () => this.#removeCard());
    if (!this.#agent?.isBusy) this.#removal.run();
  }

  #removeCard() {
    this.#removal?.pause();
    this.#removal = null;
    const id = this.#card;
    this.#card = null;
    if (id !== null) this.#tell('cardRemoved', { id });
  }

  #lose(error, ran) {
    this.#watchdog?.pause();
    this.#agent = null;
    this.#disconnect(error);
    if (this.#isClosing) return this.#agentEnded();
    const { giveUpAfter, restartDelay, restartDelayLimit } = this.#options;
    this.#failures = this.#state === 'starting' ? this.#failures + 1 : 0;
    const isFinal = error instanceof AgentStartError && !RETRYABLE.includes(error.systemCode);
    if (isFinal || this.#failures >= giveUpAfter) {
      return this.#become('failed', error.message, error);
    }
    const delay = ran > restartDelayLimit ? restartDelay : this.#delay;
    this.#delay = Math.min(delay * 2, restartDelayLimit);
    this.#restart = new Countdown(delay, () => {
      this.#become('starting');
      if (!this.#isClosing) this.#launch();
    }).run();
    this.#become('restarting', error.message);
  }

  async #close() {
    const { closeTimeout } = this.#options;
    const agent = this.#agent;
    const error = new AgentEndedError('the reader was closed');
    this.#restart?.pause();
    this.#connection?.abort(error);
    this.#connection = null;
    const limit = new Countdown(closeTimeout, () => agent?.end(NOT_RESPONDING)).run();
    agent?.close();
    // A listener that closes the reader is called for `closed` when all have been called before.
    await (agent && new Promise((resolve) => (this.#agentEnded = resolve)));
    limit.pause();
    this.#become('closed', null, error);
  }

  #become(state, reason = null, error = null) {
    const previous = this.#state;
    if (state === previous) return;
    this.#state = state;
    this.#reason = reason;
    this.#error = error;
    this.#tell('state', { state, previous, reason });
    if (state !== 'failed') return;
    // For `once` and `on` of node:events: an error without a listener would end the application.
    for (const emitter of [this.#events, this]) {
      if (emitter.listenerCount('error')) callBack(() => emitter.emit('error', error));
    }
  }

  #tell(type, fields) {
    this.#events.emit('event', { type, ...fields });
    callBack(() => this.emit(type, ...Object.values(fields)));
  }
}

module.exports = { CardReader, RETRYABLE, createAgent };
