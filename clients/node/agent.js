'use strict';
// One agent process: starts it, sends it commands and reports what it tells.
//
// Text is UTF-8 in both directions. Bytes that are not valid UTF-8 become lone surrogates, U+DC80
// to U+DCFF, so that a reader name goes back to the agent exactly as it came.

const { isUtf8 } = require('node:buffer');
const { spawn } = require('node:child_process');
const { randomBytes } = require('node:crypto');
const { EventEmitter, once } = require('node:events');
const { join } = require('node:path');
const { fileURLToPath } = require('node:url');

const LINE_LIMIT = 1023; // bytes before the line feed
const LINE_FEED = 0x0a;
const ESCAPE = 0xdc00;
const STDERR_LIMIT = 4096; // bytes of it that an error tells
const LAST_WORDS = 1000; // ms for output that another process keeps open after the agent's end
const BAD_ARCHITECTURE = -86; // macOS: EBADARCH
const ANSWER = /^(Ok|Error):(?: ([^\0]+))?$/;
const EVENT =
  /^(?:(Reader): (Global|Dev\d+(?:-[^\0\t-\r ]+)?)|(Card): ([\dA-F]{1,64})|(Log): (.*))$/s;

function decode(bytes) {
  if (isUtf8(bytes)) return bytes.toString();
  let text = '';
  for (let start = 0, end; start < bytes.length; start = end) {
    end = Math.min(start + 4, bytes.length); // no character has more than four bytes
    while (end > start && !isUtf8(bytes.subarray(start, end))) end--;
    if (end > start) text += bytes.toString('utf8', start, end);
    else text += String.fromCharCode(ESCAPE + bytes[end++]);
  }
  return text;
}

// Text that is all UTF-8 stays as it is: the stream encodes it faster.
function encode(text) {
  if (!/[\ud800-\udfff]/u.test(text)) return text;
  if (/[\ud800-\udc7f\udd00-\udfff]/u.test(text)) {
    throw new TypeError('A command must not hold a lone surrogate that stands for no byte');
  }
  const unescape = (byte) => Buffer.of(byte.charCodeAt(0) - ESCAPE);
  const pieces = text.split(/([\udc80-\udcff])/u); // every second one is an escaped byte
  return Buffer.concat(pieces.map((piece, i) => (i % 2 ? unescape(piece) : Buffer.from(piece))));
}

// The agent's program, also where its bundle is named.
function programOf(path) {
  if (path instanceof URL) path = fileURLToPath(path);
  if (!path || typeof path !== 'string') throw new TypeError(`Not the path of an agent: ${path}`);
  return /\.app\/*$/.test(path) ? join(path, 'Contents/MacOS/card-reader-agent') : path;
}

// Calls what the host gave. An exception of its must not cost the lines behind: it is thrown later.
function callBack(listener, ...told) {
  try {
    listener(...told);
  } catch (error) {
    process.nextTick(() => {
      throw error;
    });
  }
}

/** What all errors of this package are. */
class CardReaderError extends Error {
  get name() {
    return this.constructor.name;
  }
}

/** The agent answered a command with "Error"; the message is the agent's. */
class CommandError extends CardReaderError {}

/** The agent can't be run; `code` is the system's, such as ENOENT. */
class AgentStartError extends CardReaderError {
  constructor(path, cause) {
    const rosetta = process.platform === 'darwin' && cause.errno === BAD_ARCHITECTURE;
    const code = rosetta ? 'EBADARCH' : cause.code;
    const words = { ENOENT: 'there is no such file', EACCES: 'it may not be run' };
    words.EBADARCH =
      'this Mac lacks Rosetta: softwareupdate --install-rosetta --agree-to-license installs it';
    super(`cannot start ${path}: ${code in words ? `${words[code]} (${code})` : cause.message}`, {
      cause,
    });
    this.code = code;
  }
}

/** The agent is not running, so the command has no answer. */
class AgentEndedError extends CardReaderError {
  constructor({ code, signal, reason }) {
    super(reason ?? 'the agent is not running');
    this.code = code;
    this.signal = signal;
  }
}

class CardReaderAgent extends EventEmitter {
  #path;
  #options;
  #started = null; // settled once the child runs, or can't be started
  #child = null; // set while it runs
  #status = { code: null, signal: null, reason: null };
  #ended = Promise.resolve(this.#status);
  #killed = null; // why
  #pending = []; // the commands sent but not answered, oldest first
  #oldest = []; // those before them, newest first: taking one off must not move thousands
  #tokens = null; // when certain: what no library can know, and the number of the last ping
  #answered = 0;
  #unsent = ''; // lines
  #partial = []; // the pieces of the line that is not complete yet
  #stderr = Buffer.alloc(0); // its end
  #reader = null;

  constructor(path, { env = process.env, stderr = 'inherit', trace, certain = false } = {}) {
    super();
    this.#path = programOf(path);
    this.#options = { env, stderr, trace };
    if (certain) this.#tokens = { secret: randomBytes(8).toString('hex'), last: 0 };
  }

  get reader() {
    return this.#reader;
  }

  get pid() {
    return this.#child?.pid;
  }

  get pending() {
    return this.#pending.length + this.#oldest.length;
  }

  get answered() {
    return this.#answered;
  }

  async start() {
    if (this.#started) throw new Error('The agent was started before');
    return (this.#started = this.#spawn());
  }

  async close() {
    if (!this.#child) await this.#started?.catch(() => {}); // whoever started it is told
    this.#flush();
    this.#child?.stdin.end();
    return this.#ended;
  }

  kill(reason = null) {
    this.#killed ??= reason;
    this.#child?.kill('SIGKILL');
  }

  [Symbol.asyncDispose ?? Symbol.for('Symbol.asyncDispose')]() {
    return this.close();
  }

  async ping(text = '') {
    // The agent sends back the blank before the text too.
    return this.#text(await this.#send(`Global:Ping ${text}`)).slice(1);
  }

  async beep(reader, count = 1, length = 'short') {
    return this.#text(await this.#command(reader, `Beep ${length} ${count}`));
  }

  async setLed(reader, color) {
    return this.#text(await this.#command(reader, `SetLED ${color}`));
  }

  async clearLed(reader) {
    return this.#text(await this.#command(reader, 'ClearLED'));
  }

  async resetConfig(reader) {
    return this.#text(await this.#command(reader, 'ResetConfig'));
  }

  async readerConfig(reader, settings) {
    let command = 'ReaderConfig';
    for (const [type, values] of Object.entries(settings)) {
      for (const [name, value] of Object.entries(values)) {
        const number = typeof value === 'boolean' ? Number(value) : value;
        if (!/^[^\s.=]+$/.test(type) || !/^[^\s.=]+$/.test(name)) {
          throw new TypeError(`Not the name of a setting: '${type}.${name}'`);
        }
        if ((number | 0) !== number) {
          throw new RangeError(`Not a 32-bit integer: ${type}.${name}=${value}`);
        }
        command += ` ${type}.${name}=${number}`;
      }
    }
    return this.#text(await this.#command(reader, command));
  }

  async #spawn() {
    const { env, stderr } = this.#options;
    try {
      // A session of its own: Ctrl-C in the host's terminal is the host's alone.
      const child = spawn(this.#path, { env, detached: true });
      // A system out of descriptors gives a child without streams, and then the error.
      child.stdout?.on('data', (chunk) => this.#read(chunk));
      child.stderr?.on('data', (chunk) => {
        this.#stderr = Buffer.concat([this.#stderr, chunk]).subarray(-STDERR_LIMIT);
        if (stderr === 'inherit') process.stderr.write(chunk);
        else if (stderr !== 'ignore') callBack(stderr, chunk.toString());
      });
      child.stdin?.on('error', () => {}); // the agent's end is reported by 'close'
      await once(child, 'spawn');
      child.once('exit', () => {
        const streams = [child.stdout, child.stderr];
        const late = setTimeout(() => streams.forEach((stream) => stream.destroy()), LAST_WORDS);
        child.once('close', () => clearTimeout(late));
      });
      this.#ended = once(child, 'close').then(([code, signal]) => this.#end(code, signal));
      this.#child = child;
    } catch (cause) {
      this.#started = null;
      throw new AgentStartError(this.#path, cause);
    }
  }

  #command(reader, command) {
    if (!reader || reader.includes(':')) {
      throw new TypeError(`A reader name must be neither empty nor hold a colon: '${reader}'`);
    }
    return this.#send(`${reader}:${command}`);
  }

  // Resolves with the answer, or null when there will be none.
  #send(line) {
    const data = encode(line);
    const length = Buffer.byteLength(data);
    if (/[\n\0]/.test(line)) {
      throw new TypeError('A command must not hold a line feed or a zero byte');
    }
    if (length > LINE_LIMIT) {
      throw new RangeError(`Command line of ${length} bytes, more than ${LINE_LIMIT}`);
    }
    const stdin = this.#child?.stdin;
    if (!stdin || stdin.writableEnded) throw new AgentEndedError(this.#status);
    this.#write(line, data);
    let token = null;
    if (this.#tokens) {
      token = ` ${this.#tokens.secret}-${++this.#tokens.last}`;
      const ping = `Global:Ping${token}`;
      this.#write(ping, ping);
    }
    return new Promise((take) => this.#pending.push({ take, token, answer: null }));
  }

  // The text of an answer. Errors are made here, where the stack still names whoever waits for it.
  #text(answer) {
    if (!answer) throw new AgentEndedError(this.#status);
    const [, kind, text = ''] = answer;
    if (kind === 'Error') throw new CommandError(text);
    return text;
  }

  // What is sent in one turn of the event loop is written as one.
  #write(line, data) {
    if (this.#options.trace) callBack(this.#options.trace, new Date(), '>', line);
    if (!this.#unsent) process.nextTick(() => this.#flush());
    if (typeof data === 'string') return void (this.#unsent += `${data}\n`);
    this.#flush();
    this.#child.stdin.write(Buffer.concat([data, Buffer.of(LINE_FEED)]));
  }

  #flush() {
    if (this.#unsent) this.#child?.stdin.write(this.#unsent);
    this.#unsent = '';
  }

  #read(chunk) {
    const end = chunk.lastIndexOf(LINE_FEED);
    if (end < 0) return void this.#partial.push(chunk);
    const whole = Buffer.concat([...this.#partial, chunk.subarray(0, end)]);
    this.#partial = [chunk.subarray(end + 1)];
    for (const line of decode(whole).split('\n')) this.#take(line);
  }

  #take(line) {
    if (this.#options.trace) callBack(this.#options.trace, new Date(), '<', line);
    const answer = ANSWER.exec(line);
    if (answer && this.#answer(answer)) return;
    const event = EVENT.exec(line);
    if (event?.[1]) this.#changeReader(event[2]);
    else if (event?.[3]) this.#tell('card', event[4], this.#reader);
    else this.#tell('log', event ? event[6] : line); // of no known kind: a log text goes on
  }

  // Of the answers before the ping's own the last is the command's; the others are log texts.
  #answer(answer) {
    const command = this.#oldestPending();
    if (!command) return false;
    const [line, kind, text] = answer;
    if (command.token && !(kind === 'Ok' && text === command.token)) {
      if (command.answer) this.#tell('log', command.answer[0]);
      command.answer = answer;
    } else {
      this.#oldest.pop();
      this.#answered++;
      command.take(command.token ? command.answer : answer);
    }
    return true;
  }

  #oldestPending() {
    if (!this.#oldest.length) {
      this.#oldest = this.#pending.reverse();
      this.#pending = [];
    }
    return this.#oldest.at(-1);
  }

  #changeReader(name) {
    const previous = this.#reader;
    this.#reader = name === 'Global' ? null : name;
    if (!this.#reader) this.#tell('gone', previous);
    else if (previous) this.#tell('replaced', name, previous);
    else this.#tell('attached', name);
  }

  #end(code, signal) {
    const asked = this.#child.stdin.writableEnded;
    const how = signal ? `was ended by ${signal}` : `ended with status ${code}`;
    const said = decode(this.#stderr).trim();
    const reason = this.#killed ?? `the agent ${how}`;
    const status = { code, signal, reason: said ? `${reason}: ${said}` : reason };
    this.#status = status;
    this.#child = this.#reader = null;
    while (this.#oldestPending()) this.#oldest.pop().take(null);
    this.#tell('end', status);
    // For those who wait with once(): an error that nobody listens to would end the host.
    if (!asked && this.listenerCount('error')) this.#tell('error', new AgentEndedError(status));
    return status;
  }

  #tell(...event) {
    callBack(() => this.emit(...event));
  }
}

module.exports = {
  CardReaderAgent,
  CardReaderError,
  CommandError,
  AgentStartError,
  AgentEndedError,
  programOf,
  callBack,
};
