import { EventEmitter } from 'node:events';

export type BeepLength = 'short' | 'long';
export type LedColor = 'red' | 'green' | 'amber' | 'off';

/** Setting type, then setting name, to a 32-bit integer; `true` is 1 and `false` is 0. */
export type Settings = Record<string, Record<string, number | boolean>>;

// ---- Errors

export type ErrorCode =
  | 'NO_READER' | 'READER_CHANGED' | 'READER_FAILED' | 'REJECTED'
  | 'UNKNOWN_SETTINGS' | 'COMMAND_TIMEOUT' | 'AGENT_ENDED' | 'AGENT_START';

/** The base of all errors of this package. Wrong arguments are a `TypeError` or a `RangeError`. */
export abstract class CardReaderError extends Error {
  readonly code: ErrorCode;
}

/** No reader is attached. */
export class NoReaderError extends CardReaderError {}

/** The reader was replaced or reconnected before the command's turn. Nothing was executed. */
export class ReaderChangedError extends CardReaderError {}

/** The reader or its library failed. */
export class ReaderFailedError extends CardReaderError {
  /** The library's error number; null for a configuration. */
  readonly number: number | null;
}

/** The agent did not understand the command; the message is the agent's. */
export class RejectedError extends CardReaderError {}

/** The agent does not know some of the settings, and has applied the others. */
export class UnknownSettingsError extends CardReaderError {
  /** As `type.name`, sorted. */
  readonly names: string[];
}

/** No answer within the timeout. The command may have been executed, or still be. */
export class CommandTimeoutError extends CardReaderError {}

/** The agent ended, or none runs, so the command has no answer. */
export class AgentEndedError extends CardReaderError {
  /** The exit status; null after a signal, and while the agent has not exited. */
  readonly status: number | null;
  readonly signal: NodeJS.Signals | null;
}

/** The agent cannot be started. */
export class AgentStartError extends CardReaderError {
  /** The system's error code, such as `ENOENT`. */
  readonly systemCode: string;
}

// ---- The reader

export type ReaderState = 'starting' | 'searching' | 'ready' | 'restarting' | 'failed' | 'closed';

/** All times are in milliseconds. Wrong options are refused at construction. */
export interface ReaderOptions {
  /** The agent's environment. Default: that of this process. */
  env?: NodeJS.ProcessEnv | undefined;
  /** The delay before the first restart, which doubles with each restart. Default: 500. */
  restartDelay?: number | undefined;
  /** The longest delay. An agent that ran for longer resets the delay. Default: 30,000. */
  restartDelayLimit?: number | undefined;
  /**
   * The state is `failed` after so many agents in a row that ended without an answer. `Infinity`
   * never gives up. Default: 5.
   */
  giveUpAfter?: number | undefined;
  /** The timeout of commands without their own. `Infinity` for none. Default: 10,000. */
  commandTimeout?: number | undefined;
  /** A ping is sent when no command was under way for so long. 0 for none. Default: 5,000. */
  watchdogInterval?: number | undefined;
  /** The agent is restarted when a command waits for so long. Default: 15,000. */
  watchdogTimeout?: number | undefined;
  /** A card is removed when it was not reported for so much idle time. Default: 600. */
  cardRemovedAfter?: number | undefined;
  /**
   * Called on each connection, before `ready`. If it rejects, a `log` event says why, and the state
   * stays `searching` until the next connection. The signal is aborted when the reader is replugged
   * or disconnected, or the agent ends: pass it to the commands. The next call waits at most two
   * seconds for this one to settle.
   */
  onConnect?: ((reader: CardReader, context: { signal: AbortSignal }) => unknown) | null | undefined;
  /** The agent is killed if it has not exited so long after `close()`. Default: 2,000. */
  closeTimeout?: number | undefined;
  /**
   * Where the agent's standard error goes: to this process's, nowhere, or to a function, as text. Its
   * last lines are also part of the reason of the agent's end. Default: `inherit`.
   */
  stderr?: 'inherit' | 'ignore' | ((text: string) => void) | undefined;
  /** Gets each line of the protocol: `>` to the agent, `<` from it. */
  trace?: ((time: Date, direction: '>' | '<', line: string) => void) | null | undefined;
}

/** A call that is cancelled rejects with the signal's reason. */
export interface Cancel {
  signal?: AbortSignal;
}

/** A call that takes longer rejects with `CommandTimeoutError`. */
export interface Limits extends Cancel {
  timeout?: number | undefined;
}

export type EventName = keyof ReaderEvents;

export interface ReaderEvents {
  /** The state has changed. The reason is a sentence for people, or null. */
  state: [state: ReaderState, previous: ReaderState, reason: string | null];
  /** A card has appeared: its ID in upper-case hexadecimal digits. */
  card: [id: string];
  /** The card was removed or replaced, or the reader was disconnected, or the agent ended. */
  cardRemoved: [id: string];
  /** A report of a card; a card that is held is reported again and again. */
  poll: [id: string];
  /** A line of diagnostics, or why the on-connect function failed. */
  log: [text: string];
  /**
   * The state is `failed`, for this reason. Emitted only if there is a listener: `once` and `on` of
   * `node:events` listen, and reject.
   */
  error: [error: AgentStartError | AgentEndedError];
}

/** An event of a loop over a reader. */
export type ReaderEvent =
  | { type: 'state'; state: ReaderState; previous: ReaderState; reason: string | null }
  | { type: 'card' | 'cardRemoved' | 'poll'; id: string }
  | { type: 'log'; text: string };

/**
 * A card reader that is kept in use until it is closed. Listeners are called in the order of what
 * happens. One that throws costs no other event; an asynchronous one that rejects causes a warning.
 *
 * Commands go to the reader attached. They reject with an error of this package, or with a
 * `TypeError` or a `RangeError`, for wrong arguments, before anything is sent.
 */
export class CardReader extends EventEmitter implements AsyncIterable<ReaderEvent> {
  /** The path is that of the agent's program, or of its bundle, which ends with `.app`. */
  constructor(path: string | URL, options?: ReaderOptions);

  /** `starting` at first, also before `start()`. */
  readonly state: ReaderState;
  /** That of the last `state` event. */
  readonly reason: string | null;
  /** The name of the reader attached; every connection has a new one. */
  readonly name: string | null;
  /** The ID of the card that is held. */
  readonly card: string | null;
  /** The agent's process ID while it runs. */
  readonly pid: number | undefined;

  /** Starts the agent, once. Add the listeners before. */
  start(): void;

  /**
   * Lets the agent answer what was sent and exit, kills it after `closeTimeout`, and resolves when
   * the state is `closed`, at most two seconds later. If the signal is aborted, it rejects at once,
   * and the reader closes nevertheless.
   */
  close(options?: Cancel): Promise<void>;

  /** Resolves with the text, without white space at its end. */
  ping(text?: string, limits?: Limits): Promise<string>;
  /** 1 to 5 short beeps, 1 or 2 long ones. Default: 1, `short`. */
  beep(count?: number, length?: BeepLength): Promise<void>;
  beep(options: Limits & { count?: number | undefined; length?: BeepLength | undefined }): Promise<void>;
  /** Takes the LED under the agent's control and sets its color. */
  setLed(color: LedColor, limits?: Limits): Promise<void>;
  /** Gives control of the LED back to the reader. */
  clearLed(limits?: Limits): Promise<void>;
  /** Changes these settings of the reader's configuration. */
  configure(settings: Settings, limits?: Limits): Promise<void>;
  /** Resets the reader to its factory settings. */
  resetConfig(limits?: Limits): Promise<void>;

  /** Resolves when the state is this one. Rejects at `failed` and `closed`, unless that is it. */
  waitFor(state: ReaderState, limits?: Limits): Promise<void>;
  /** Resolves with the reader's name the next time that the state becomes `ready`. Rejects as above. */
  waitForConnection(limits?: Limits): Promise<string>;

  /** The events from now on. Ends at `closed`; at `failed`, throws what led there. */
  [Symbol.asyncIterator](): AsyncIterableIterator<ReaderEvent>;
  /** Closes. */
  [Symbol.asyncDispose](): Promise<void>;

  static once<E extends EventName>(reader: CardReader, event: E, options?: Cancel): Promise<ReaderEvents[E]>;
  static once(...args: Parameters<typeof EventEmitter.once>): Promise<any[]>;
  static on<E extends EventName>(reader: CardReader, event: E, options?: Cancel): AsyncIterableIterator<ReaderEvents[E]>;
  static on(...args: Parameters<typeof EventEmitter.on>): AsyncIterableIterator<any>;

  on<E extends EventName>(event: E, listener: (...args: ReaderEvents[E]) => unknown): this;
  once<E extends EventName>(event: E, listener: (...args: ReaderEvents[E]) => unknown): this;
  off<E extends EventName>(event: E, listener: (...args: ReaderEvents[E]) => unknown): this;
}
