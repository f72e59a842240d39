// Starts the card reader agent, sends it commands and reports what it tells.
//
// Text is UTF-8 in both directions. Bytes that are not valid UTF-8 become lone surrogates, U+DC80
// to U+DCFF, so that a reader name goes back to the agent exactly as it came.

import { isUtf8 } from 'node:buffer';
import { spawn } from 'node:child_process';
import { EventEmitter, once } from 'node:events';

const LINE_LIMIT = 1023; // bytes before the line feed
const LINE_FEED = 0x0a;
const ESCAPE = 0xdc00;
const LINE = /^(Ok|Error|(?:Reader|Card|Log)(?=: )):(?: (.*))?$/s;

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

function encode(text) {
  const unescape = (byte) => Buffer.of(byte.charCodeAt(0) - ESCAPE);
  const pieces = text.split(/([\udc80-\udcff])/u); // every second one is an escaped byte
  return Buffer.concat(pieces.map((piece, i) => (i % 2 ? unescape(piece) : Buffer.from(piece))));
}

/** The agent answered a command with "Error"; the message is the agent's. */
export class CommandError extends Error {
  name = 'CommandError';
}

/** The agent is not running, so the command has no answer. */
export class AgentEndedError extends Error {
  name = 'AgentEndedError';

  constructor({ code, signal }) {
    const how = signal ? `was ended by ${signal}` : `ended with status ${code}`;
    super(code === null && !signal ? 'The agent is not running' : `The agent ${how}`);
    this.code = code;
    this.signal = signal;
  }
}

export class CardReaderAgent extends EventEmitter {
  #path;
  #env;
  #started = null; // settled once the child runs, or can't be started
  #child = null; // set while it runs
  #status = { code: null, signal: null };
  #ended = Promise.resolve(this.#status);
  #pending = []; // the commands sent but not answered, oldest first
  #oldest = []; // those before them, newest first: taking one off must not move thousands
  #partial = []; // the pieces of the line that is not complete yet
  #reader = null;

  constructor(path, { env = process.env } = {}) {
    super();
    this.#path = path;
    this.#env = env;
  }

  get reader() {
    return this.#reader;
  }

  get pid() {
    return this.#child?.pid;
  }

  async start() {
    if (this.#started) throw new Error('The agent was started before');
    return (this.#started = this.#spawn());
  }

  async close() {
    if (!this.#child) await this.#started?.catch(() => {}); // whoever started it is told
    this.#child?.stdin.end();
    return this.#ended;
  }

  async ping(text = '') {
    // The agent sends back the blank before the text too.
    return (await this.#send(`Global:Ping ${text}`)).slice(1);
  }

  async beep(reader, count = 1, length = 'short') {
    return this.#command(reader, `Beep ${length} ${count}`);
  }

  async setLed(reader, color) {
    return this.#command(reader, `SetLED ${color}`);
  }

  async clearLed(reader) {
    return this.#command(reader, 'ClearLED');
  }

  async resetConfig(reader) {
    return this.#command(reader, 'ResetConfig');
  }

  async readerConfig(reader, settings) {
    let command = 'ReaderConfig';
    for (const [type, values] of Object.entries(settings)) {
      for (const [name, value] of Object.entries(values)) {
        const number = typeof value === 'boolean' ? Number(value) : value;
        if (/\s/.test(type + name)) throw new TypeError(`White space in setting ${type}.${name}`);
        if ((number | 0) !== number) {
          throw new RangeError(`Not a 32-bit integer: ${type}.${name}=${value}`);
        }
        command += ` ${type}.${name}=${number}`;
      }
    }
    return this.#command(reader, command);
  }

  async #spawn() {
    try {
      const child = spawn(this.#path, { stdio: ['pipe', 'pipe', 'inherit'], env: this.#env });
      // A system out of descriptors gives a child without streams, and then the error.
      child.stdout?.on('data', (chunk) => this.#read(chunk));
      child.stdin?.on('error', () => {}); // the agent's end is reported by 'close'
      await once(child, 'spawn');
      this.#ended = once(child, 'close').then(([code, signal]) => this.#end({ code, signal }));
      this.#child = child;
    } catch (cause) {
      this.#started = null;
      throw new Error(`Cannot start the agent ${this.#path}: ${cause.message}`, { cause });
    }
  }

  #command(reader, command) {
    if (!reader || reader.includes(':')) {
      throw new TypeError(`A reader name must be neither empty nor hold a colon: '${reader}'`);
    }
    return this.#send(`${reader}:${command}`);
  }

  #send(line) {
    const bytes = encode(line);
    if (bytes.includes(LINE_FEED) || bytes.includes(0)) {
      throw new TypeError('A command must not hold a line feed or a zero byte');
    }
    if (bytes.length > LINE_LIMIT) {
      throw new RangeError(`Command line of ${bytes.length} bytes, more than ${LINE_LIMIT}`);
    }
    const stdin = this.#child?.stdin;
    if (!stdin || stdin.writableEnded) throw new AgentEndedError(this.#status);
    return new Promise((resolve, reject) => {
      this.#pending.push({ resolve, reject });
      stdin.write(Buffer.concat([bytes, Buffer.of(LINE_FEED)]));
    });
  }

  #read(chunk) {
    let start = 0;
    for (let end; (end = chunk.indexOf(LINE_FEED, start)) >= 0; start = end + 1) {
      const line = Buffer.concat([...this.#partial, chunk.subarray(start, end)]);
      this.#partial = [];
      this.#take(decode(line));
    }
    this.#partial.push(chunk.subarray(start));
  }

  #take(line) {
    const [, kind, text = ''] = LINE.exec(line) ?? [];
    const command = kind === 'Ok' || kind === 'Error' ? this.#nextPending() : null;
    if (command && kind === 'Ok') command.resolve(text);
    else if (command) command.reject(new CommandError(text));
    else if (kind === 'Reader') this.#changeReader(text);
    else if (kind === 'Card') this.#tell('card', text, this.#reader);
    else this.#tell('log', kind === 'Log' ? text : line); // no known kind: a log text goes on
  }

  #nextPending() {
    if (!this.#oldest.length) {
      this.#oldest = this.#pending.reverse();
      this.#pending = [];
    }
    return this.#oldest.pop();
  }

  #changeReader(name) {
    const previous = this.#reader;
    this.#reader = name === 'Global' ? null : name;
    if (!this.#reader) this.#tell('gone', previous);
    else if (previous) this.#tell('replaced', name, previous);
    else this.#tell('attached', name);
  }

  #end(status) {
    this.#status = status;
    this.#child = this.#reader = null;
    const error = new AgentEndedError(status);
    for (let command; (command = this.#nextPending()); ) command.reject(error);
    this.#tell('end', status);
    return status;
  }

  // A listener that throws must not cost the lines behind: its exception is thrown later.
  #tell(...event) {
    try {
      this.emit(...event);
    } catch (error) {
      process.nextTick(() => {
        throw error;
      });
    }
  }
}
