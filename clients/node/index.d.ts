import { EventEmitter } from 'node:events';

export type BeepLength = 'short' | 'long';
export type LedColor = 'red' | 'green' | 'amber' | 'off';

/** Setting type, then setting name, to a 32-bit integer; `true` is 1 and `false` is 0. */
export type Settings = Record<string, Record<string, number | boolean>>;

/** Takes a line of the protocol that was sent to the agent, `>`, or came from it, `<`. */
export type Trace = (time: Date, direction: '>' | '<', line: string) => void;

/** Where the agent's standard error goes: to this process's, nowhere, or to a function as text. */
export type StandardError = 'inherit' | 'ignore' | ((text: string) => void);

/** The agent's program, or the bundle that holds it: a path that ends with `.app`. */
export type AgentPath = string | URL;

// ---- Errors

/** What all errors of this package are. Its arguments' errors are `TypeError` and `RangeError`. */
export class CardReaderError extends Error {}

/** The agent can't be run. */
export class AgentStartError extends CardReaderError {
  /** The system's, such as `ENOENT`. */
  readonly code: string;
}

/** The agent is not running (any more), so the command has no answer. */
export class AgentEndedError extends CardReaderError {
  /** Null after a signal; both are null while there is no end. */
  readonly code: number | null;
  readonly signal: NodeJS.Signals | null;
}

/** No reader is attached. */
export class NoReaderError extends CardReaderError {}

/**
 * Another reader was attached, or the same one anew, when the command's turn came. Nothing was
 * done, and what was set before on the LED or in the configuration may be lost.
 */
export class ReaderChangedError extends CardReaderError {}

/** The reader, or its library, failed. */
export class ReaderFailedError extends CardReaderError {
  /** The library's; null for a configuration, which has none. */
  readonly number: number | null;
}

/** The agent did not understand the command; the message is the agent's. */
export class RejectedError extends CardReaderError {}

/** The agent does not know some of the settings, and has applied the others. */
export class UnknownSettingsError extends CardReaderError {
  /** Those, as `type.name`, sorted. */
  readonly names: string[];
}

/** No answer came in time. The command may have been carried out, or still be. */
export class CommandTimeoutError extends CardReaderError {}

/** Lower layer: the agent answered with "Error"; the message is the agent's, without "Error: ". */
export class CommandError extends CardReaderError {}

// ---- The supervised reader

export type ReaderState = 'starting' | 'searching' | 'ready' | 'restarting' | 'failed' | 'closed';

/** All times are in milliseconds; `Infinity` is none. */
export interface ReaderOptions {
  /** The agent's environment, that of this process by default. */
  env?: NodeJS.ProcessEnv;
  /** The pause before a new agent, 500 at first. It doubles with each agent that has ended ... */
  restartDelay?: number;
  /** ... up to this, 30,000; after an agent that ran for longer than this it is the first again. */
  restartDelayLimit?: number;
  /** The state is `failed` after so many agents in a row that ended and never answered: 5. */
  giveUpAfter?: number;
  /** The deadline of a command that has none of its own: 10,000. */
  commandTimeout?: number;
  /** A ping is sent when no command was for so long: 5,000. 0 sends none. */
  watchdogInterval?: number;
  /** The agent hangs when the oldest command under way has waited for so long: 15,000. */
  watchdogTimeout?: number;
  /** Kill an agent that hangs and start a new one, the default, or wait for it and tell `hang`. */
  onHang?: 'restart' | 'wait';
  /** A card that was not reported for so long is gone: 600. */
  cardRemovedAfter?: number;
  /**
   * Called on each connection of a reader, before `ready`. If it rejects, a log event says why, and
   * the state stays `searching` up to the next connection. Whether it resolves no longer matters
   * once that reader has gone.
   */
  onConnect?: ((reader: CardReader) => unknown) | null;
  /** The agent is killed when it has not ended so long after `close()`: 2,000. */
  closeTimeout?: number;
  /** `inherit` by default. The end of what an agent wrote is also part of the reason of its end. */
  stderr?: StandardError;
  trace?: Trace | null;
  /**
   * Sends a ping with a fresh number after each command, so that no text of the reader library can
   * pass for an answer: true. Only a flood of commands gains by doing without.
   */
  certain?: boolean;
}

/** The limits of one call, which rejects with `CommandTimeoutError`, or with the signal's reason. */
export interface Limits {
  timeout?: number;
  signal?: AbortSignal;
}

export interface ReaderEvents {
  /** The state changed; the reason is a sentence for people, null where none is needed. */
  state: [state: ReaderState, previous: ReaderState, reason: string | null];
  /** A card appeared: its ID in upper-case hexadecimal digits. */
  card: [id: string];
  /**
   * The card was not reported for `cardRemovedAfter`, another one was, or reader or agent have gone:
   * then before the event that tells so. The time that commands take does not count.
   */
  cardRemoved: [id: string];
  /** A card was reported; one that is held there is again and again. */
  poll: [id: string];
  /** A line of diagnostics; a text of several lines comes as several events. */
  log: [text: string];
  /** The agent hangs, and is waited for. */
  hang: [];
  /**
   * The state is `failed`, for this reason. Told only if somebody listens, as `once` and `on` of
   * `node:events` do, which thus reject.
   */
  error: [error: AgentStartError | AgentEndedError];
}

/** What iterating over a reader gives. */
export type ReaderEvent =
  | { type: 'state'; state: ReaderState; previous: ReaderState; reason: string | null }
  | { type: 'card' | 'cardRemoved' | 'poll'; id: string }
  | { type: 'log'; text: string }
  | { type: 'hang' };

/**
 * A card reader that is kept in use until it is closed: the agent is started again when it ends or
 * hangs, commands have deadlines, and cards come and go. Listeners are called in the order of what
 * happens; one that throws costs no other event.
 *
 * Commands go to the reader that is attached. They reject with `NoReaderError`,
 * `ReaderChangedError`, `ReaderFailedError`, `RejectedError`, `UnknownSettingsError`,
 * `CommandTimeoutError` or `AgentEndedError`; or, with nothing sent, with `TypeError` or `RangeError` for
 * arguments that can't be told in one line of the protocol. One that is late or was cancelled
 * leaves the answers of others as they are.
 */
export class CardReader extends EventEmitter implements AsyncIterable<ReaderEvent> {
  constructor(path: AgentPath, options?: ReaderOptions);

  /** `starting` at first, also before `start()`. */
  readonly state: ReaderState;
  /** Why, as it was told last. */
  readonly reason: string | null;
  /** The name of the attached reader, null when there is none; a new one on every connection. */
  readonly name: string | null;
  /** The ID of the card that is there. */
  readonly card: string | null;
  /** The agent's process id while one runs. */
  readonly pid: number | undefined;

  /** Begins, once. Add the listeners before, then no event is missed. Waits for nothing. */
  start(): void;

  /**
   * Lets the agent answer what was sent, ends it, kills it after `closeTimeout`, and resolves when
   * it has ended and the state is `closed`. May be called more than once.
   */
  close(): Promise<void>;

  /** Resolves with the text, less white space at its end. */
  ping(text?: string, limits?: Limits): Promise<string>;
  /** 1 to 5 short beeps or 1 to 2 long ones; one short one if nothing is told. */
  beep(count?: number, length?: BeepLength, limits?: Limits): Promise<void>;
  /** Takes the LED under the agent's control and sets its color. */
  setLed(color: LedColor, limits?: Limits): Promise<void>;
  /** Gives control of the LED back to the reader. */
  clearLed(limits?: Limits): Promise<void>;
  /** Changes the reader's configuration; settings that are not named stay as they are. */
  configure(settings: Settings, limits?: Limits): Promise<void>;
  /** Resets the reader to its factory settings. */
  resetConfig(limits?: Limits): Promise<void>;

  /**
   * Resolves when the state is `ready`, at once if it is. Rejects when it is `failed`, with what
   * led there, or `closed`. Has no deadline unless told.
   */
  waitForReader(limits?: Limits): Promise<void>;

  /**
   * The events from now on, in order, up to the state `failed` or `closed`. They wait in memory.
   */
  [Symbol.asyncIterator](): AsyncIterableIterator<ReaderEvent>;
  /** Closes. */
  [Symbol.asyncDispose](): Promise<void>;

  static once<E extends keyof ReaderEvents>(
    reader: CardReader,
    event: E,
    options?: { signal?: AbortSignal },
  ): Promise<ReaderEvents[E]>;
  static once(...args: Parameters<typeof EventEmitter.once>): Promise<any[]>;

  on<E extends keyof ReaderEvents>(event: E, listener: (...told: ReaderEvents[E]) => void): this;
  once<E extends keyof ReaderEvents>(event: E, listener: (...told: ReaderEvents[E]) => void): this;
  off<E extends keyof ReaderEvents>(event: E, listener: (...told: ReaderEvents[E]) => void): this;
}

// ---- One agent

/** How the agent ended: `code` is null after a signal; all are null while there is no end. */
export interface AgentStatus {
  code: number | null;
  signal: NodeJS.Signals | null;
  /** In words, with the end of what it wrote on standard error. */
  reason: string | null;
}

/** As for the reader, but `certain` is false by default. */
export type AgentOptions = Pick<ReaderOptions, 'env' | 'stderr' | 'trace' | 'certain'>;

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
  /**
   * The agent ended without `close()`. Told after `end`, and only if somebody listens, as `once`
   * and `on` of `node:events` do, which thus reject.
   */
  error: [error: AgentEndedError];
}

/**
 * One agent process. Add the listeners before `start()`, then no event is missed; listeners are
 * called in the order of the agent's lines, and one that throws costs no other event.
 *
 * Every command resolves with the agent's text after "Ok: ", empty for most, or rejects with:
 * `CommandError` for the agent's "Error"; `AgentEndedError` without an answer; `TypeError` or
 * `RangeError`, with nothing sent, for arguments that can't be told in one line of the protocol: a
 * line feed or zero byte, a colon in a reader name, a lone surrogate that stands for no byte, white
 * space, a dot or an equals sign in a setting's name, a value that is no 32-bit integer, more than
 * 1023 bytes. Commands may be sent without waiting for the answers before; what the agent has not
 * read yet waits in memory.
 */
export class CardReaderAgent extends EventEmitter {
  constructor(path: AgentPath, options?: AgentOptions);

  /** The name of the attached reader, null when there is none. */
  readonly reader: string | null;
  /** The agent's process id while it runs. */
  readonly pid: number | undefined;
  /** The commands that were sent and not answered. */
  readonly pending: number;
  /** How many commands were answered so far. */
  readonly answered: number;

  /**
   * Starts the agent, once; commands before it resolves fail. Rejects with `AgentStartError` when
   * there is no such program to run. A program that runs but fails at once, for want of its library
   * perhaps, gives `end`.
   */
  start(): Promise<void>;

  /**
   * Closes the agent's standard input and waits for its end, by when all commands sent before are
   * answered. Resolves with its status, code 0 when all is well. May be called more than once, and
   * has no limit in time: an agent that waits for its reader ends when the reader answers.
   */
  close(): Promise<AgentStatus>;

  /** Kills the agent. `reason` takes the place of the signal in the words for its end. */
  kill(reason?: string): void;

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

  /** Closes. */
  [Symbol.asyncDispose](): Promise<AgentStatus>;

  static once<E extends keyof AgentEvents>(
    agent: CardReaderAgent,
    event: E,
    options?: { signal?: AbortSignal },
  ): Promise<AgentEvents[E]>;
  static once(...args: Parameters<typeof EventEmitter.once>): Promise<any[]>;

  on<E extends keyof AgentEvents>(event: E, listener: (...told: AgentEvents[E]) => void): this;
  once<E extends keyof AgentEvents>(event: E, listener: (...told: AgentEvents[E]) => void): this;
  off<E extends keyof AgentEvents>(event: E, listener: (...told: AgentEvents[E]) => void): this;
}
