'use strict';
// One agent process: starts it, writes commands, matches the answers and reports the other lines.

const { childProcess, crypto } = require('./builtins.js');
const { Countdown } = require('./countdown.js');
const { AgentEndedError, AgentStartError } = require('./errors.js');
const { attachedReader, decode, encode, parseAnswer, parseEvent } = require('./protocol.js');

const NEWLINE = 0x0a;
const STDERR_LIMIT = 4096; // characters of it in the words for the agent's end
const END_LIMIT_MS = 2000; // for a killed process, and for streams that another process keeps open

// Calls a function of the application. An exception of its must not cost the lines behind: it is
// thrown later.
function callBack(callback, ...args) {
  try {
    callback(...args);
  } catch (error) {
    process.nextTick(() => {
      throw error;
    });
  }
}

// Nobody may read this process's standard error, which must not end it.
const ignore = () => {};
function writeToStderr(text) {
  if (!process.stderr.listeners('error').includes(ignore)) process.stderr.on('error', ignore);
  process.stderr.write(text);
}

class Agent {
  reader = null; // the name of the one attached; this and `pid` are written here alone
  pid; // while the agent runs
  #path;
  #options;
  #handlers;
  #child = null; // while it runs
  #reason = null; // why it was killed
  #limit = null; // for its end
  #stderr = ''; // the end of it
  #unsent = []; // bytes of commands
  #partial = []; // the pieces of the line that is not complete yet
  #commands = []; // without an answer yet
  #secret = crypto.randomBytes(8).toString('hex');
  #pings = 0;
  #number = null; // of the last connection

  // Starts it. Of `handlers`, `pace` is called when commands are under way, or are no longer, and at
  // each answer; `end`, once, with an error that says why; `reader` with its name, or null, and the
  // name before; `card` and `log` with a text.
  constructor(path, options, handlers) {
    this.#path = path;
    this.#options = options;
    this.#handlers = handlers;
    this.#spawn();
  }

  get isBusy() {
    return this.#commands.length > 0;
  }

  // Sends a command, to the reader attached or to the agent itself. Resolves with its answer and its
  // log texts, or with the error `end` if there will be none.
  //
  // The ping behind it has a text that no library can know, so the last answer before the ping's is
  // the command's. The ping before a reader's command tells when the agent executes that: it polls
  // for no card then, and a line that reports one is a text of the library.
  async send(line, isForReader = false) {
    const bytes = encode(line);
    if (!this.#child?.stdin.writable) return { end: new AgentEndedError() };
    const wasBusy = this.isBusy;
    if (isForReader) this.#sendPing({ isPing: true });
    this.#write(line, bytes);
    const answer = new Promise((resolve) => this.#sendPing({ resolve, isForReader, logs: [] }));
    if (!wasBusy) this.#handlers.pace();
    return await answer;
  }

  // Lets the agent answer what was sent, and exit.
  close() {
    this.#flush();
    this.#child?.stdin.end();
  }

  // Kills the agent, and settles all with this reason, whether or not the process dies.
  end(reason) {
    this.#reason ??= reason;
    this.#child?.kill('SIGKILL');
    this.#limitEnd();
  }

  #spawn() {
    const { env } = this.#options;
    let child;
    try {
      // A session of its own: Ctrl-C in the application's terminal is the application's alone.
      child = childProcess.spawn(this.#path, { env, detached: true });
    } catch (cause) {
      return process.nextTick(() => this.#handlers.end(new AgentStartError(this.#path, cause)));
    }
    child.on('error', (cause) => {
      if (!child.pid) this.#handlers.end(new AgentStartError(this.#path, cause));
    });
    if (!child.pid) return;
    this.#child = child;
    this.pid = child.pid;
    child.stdin.on('error', ignore); // the agent's exit is what is reported
    child.stdout.on('data', (chunk) => this.#read(chunk));
    child.stderr.setEncoding('utf8').on('data', (text) => this.#readStderr(text));
    child.once('exit', () => this.#limitEnd());
    child.once('close', () => this.#settle());
  }

  #readStderr(text) {
    const { stderr } = this.#options;
    this.#stderr = (this.#stderr + text).slice(-STDERR_LIMIT);
    if (stderr === 'inherit') writeToStderr(text);
    else if (stderr !== 'ignore') callBack(stderr, text);
  }

  #limitEnd() {
    if (this.#child) this.#limit ??= new Countdown(END_LIMIT_MS, () => this.#settle()).run();
  }

  #settle() {
    const child = this.#child;
    if (!child) return;
    this.#limit?.pause();
    this.#child = this.reader = null;
    this.pid = undefined;
    for (const stream of child.stdio) stream.destroy();
    child.unref();
    const { exitCode: status, signalCode: signal } = child;
    const said = this.#stderr.trim() && `: ${this.#stderr.trim()}`;
    const how = signal ? `was killed by ${signal}` : `exited with status ${status}${said}`;
    const error = new AgentEndedError(this.#reason ?? `the agent ${how}`, status, signal);
    for (const { resolve } of this.#commands.splice(0)) resolve?.({ end: error });
    this.#handlers.end(error);
  }

  #sendPing(command) {
    command.token = ` ${this.#secret}-${++this.#pings}`;
    const line = `Global:Ping${command.token}`;
    this.#write(line, encode(line));
    this.#commands.push(command);
  }

  // What is sent in one turn of the event loop is written as one.
  #write(line, bytes) {
    if (this.#options.trace) callBack(this.#options.trace, new Date(), '>', line);
    if (!this.#unsent.length) process.nextTick(() => this.#flush());
    this.#unsent.push(bytes);
  }

  #flush() {
    if (this.#unsent.length) this.#child?.stdin.write(Buffer.concat(this.#unsent));
    this.#unsent = [];
  }

  #read(chunk) {
    const end = chunk.lastIndexOf(NEWLINE);
    if (end < 0) return void this.#partial.push(chunk);
    const whole = Buffer.concat([...this.#partial, chunk.subarray(0, end)]);
    this.#partial = [chunk.subarray(end + 1)];
    for (const line of decode(whole).split('\n')) this.#readLine(line);
  }

  #readLine(line) {
    if (this.#options.trace) callBack(this.#options.trace, new Date(), '<', line);
    const answer = parseAnswer(line);
    const command = this.#commands[0];
    if (answer && command) return this.#readAnswer(answer, command);
    const { name, number, id, text } = parseEvent(line);
    if (name === 'Global' && this.reader) this.#attach({ name: null });
    else if (name && number === (this.#number ?? number - 1) + 1) this.#attach({ name, number });
    // The agent executes the oldest command, if that is a reader's: the ping before it was answered.
    else if (id && this.reader && !command?.isForReader) this.#handlers.card(id);
    else this.#log(text);
  }

  #readAnswer(answer, command) {
    if (answer.kind === 'Ok' && answer.text === command.token) {
      this.#commands.shift();
      if (command.isMistaken) this.#attach(attachedReader(command.answer));
      command.resolve?.(command);
      this.#handlers.pace();
    } else if (command.isPing) this.#log(answer.line);
    else {
      if (command.answer) this.#log(command.answer.line);
      command.answer = answer;
      // What the agent says of the reader attached holds if a line of the library said otherwise.
      const attached = attachedReader(answer);
      command.isMistaken = attached && attached.name !== this.reader;
    }
  }

  #attach({ name, number }) {
    const previous = this.reader;
    this.reader = name;
    this.#number = number ?? this.#number;
    this.#handlers.reader(name, previous);
  }

  #log(text) {
    this.#commands[0]?.logs?.push(text);
    this.#handlers.log(text);
  }
}

module.exports = { Agent, callBack };
