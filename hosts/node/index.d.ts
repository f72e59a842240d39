import { EventEmitter } from 'node:events';

/** How the agent ended: `code` is null after a signal; both are null while there is no end. */
export interface AgentStatus {
  code: number | null;
  signal: NodeJS.Signals | null;
}

/** The agent answered a command with "Error"; the message is the agent's, without "Error: ". */
export class CommandError extends Error {}

/** The agent is not running (any more), so the command has no answer. */
export class AgentEndedError extends Error implements AgentStatus {
  constructor(status: AgentStatus);
  readonly code: number | null;
  readonly signal: NodeJS.Signals | null;
}

export type BeepLength = 'short' | 'long';
export type LedColor = 'red' | 'green' | 'amber' | 'off';

/** Setting type, then setting name, to a 32-bit integer; `true` is 1 and `false` is 0. */
export type Settings = Record<string, Record<string, number | boolean>>;

export interface AgentOptions {
  /** The agent's environment, that of this process by default. */
  env?: NodeJS.ProcessEnv;
}

export interface AgentEvents {
  /** A reader was found while there was none. */
  attached: [reader: string];
  /** The reader was lost and found again at once; commands need its new name. */
  replaced: [reader: string, previous: string];
  /** The reader was lost. The agent looks for one every 10 seconds. */
  gone: [previous: string];
  /** A card was read: its ID in upper-case hexadecimal digits, and the reader it came from. */
  card: [id: string, reader: string];
  /** A line of diagnostics; a text of several lines comes as several events. */
  log: [text: string];
  /** The agent ended and all its output was read; everything pending has failed. */
  end: [status: AgentStatus];
}

/**
 * One agent process. Add the listeners before `start()`, then no event is missed; listeners are
 * called in the order of the agent's lines, and one that throws costs no other event. The agent's
 * standard error is that of this process.
 *
 * Every command resolves with the agent's text after "Ok: ", empty for most, or rejects with:
 * `CommandError` for the agent's "Error"; `AgentEndedError` without an answer; `TypeError` or
 * `RangeError`, with nothing sent, for arguments that can't be told in one line of the protocol: a
 * line feed or zero byte, a colon in a reader name, white space in a setting's name, a value that
 * is no 32-bit integer, more than 1023 bytes. Commands may be sent without waiting for the answers
 * before; what the agent has not read yet waits in memory.
 */
export class CardReaderAgent extends EventEmitter {
  /** `path` is the agent's executable, `CardReaderAgent.app/Contents/MacOS/card-reader-agent`. */
  constructor(path: string, options?: AgentOptions);

  /** The name of the attached reader, null when there is none. */
  readonly reader: string | null;

  /** The agent's process id while it runs. A process that hangs can be ended by it. */
  readonly pid: number | undefined;

  /**
   * Starts the agent, once; commands before it resolves fail. Rejects when there is no such program
   * to run. A program that runs but fails at once, for want of its library perhaps, gives `end`.
   */
  start(): Promise<void>;

  /**
   * Closes the agent's standard input and waits for its end, by when all commands sent before are
   * answered. Resolves with its status, code 0 when all is well. May be called more than once, and
   * has no limit in time: an agent that waits for its reader ends when the reader answers.
   */
  close(): Promise<AgentStatus>;

  /** Resolves with the text, less white space at its end. */
  ping(text?: string): Promise<string>;

  /** 1 to 5 short beeps or 1 to 2 long ones. */
  beep(reader: string, count?: number, length?: BeepLength): Promise<string>;

  /** Takes the LED under the agent's control and sets its color. */
  setLed(reader: string, color: LedColor): Promise<string>;

  /** Gives control of the LED back to the reader. */
  clearLed(reader: string): Promise<string>;

  /** Resets the reader to its factory settings. */
  resetConfig(reader: string): Promise<string>;

  /** Changes the reader's configuration; unknown settings only give log events. */
  readerConfig(reader: string, settings: Settings): Promise<string>;

  on<E extends keyof AgentEvents>(event: E, listener: (...args: AgentEvents[E]) => void): this;
  once<E extends keyof AgentEvents>(event: E, listener: (...args: AgentEvents[E]) => void): this;
  off<E extends keyof AgentEvents>(event: E, listener: (...args: AgentEvents[E]) => void): this;
}
