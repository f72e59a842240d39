/// <reference types="node" />
import { CardReader, type ReaderOptions } from './index.js';

/**
 * A virtual reader for tests, one process with a private socket. It ends with `close()`, and with
 * the process that started it, whatever becomes of that.
 *
 * Each call is carried out when its promise resolves; it rejects with the reader's own words when
 * the verb is wrong or what was expected did not come.
 */
export class VirtualReader {
  /**
   * Default: the program `$VIRTUAL_READER`, or `virtual-reader` on the path, with the reader plugged in.
   */
  static start(options?: { program?: string; plugged?: boolean }): Promise<VirtualReader>;

  /**
   * The environment for the agent, or for the application under test, that is to find this reader.
   */
  readonly env: NodeJS.ProcessEnv;

  /** Has the reader carry out any verb, and resolves with what it answers. */
  execute(verb: string): Promise<string>;

  plug(): Promise<void>;
  unplug(): Promise<void>;
  /** Pulls the reader out and plugs it in at once. */
  replug(): Promise<void>;
  /** Shows cards such as `3AB1234/26` for a moment each, in order. */
  queue(...cards: string[]): Promise<void>;
  /** Holds a card up until `remove()`. */
  hold(card: string): Promise<void>;
  remove(): Promise<void>;
  /**
   * The library's call fails: with this error number, and `once`, `times N`, `at K`, `always` ...
   */
  fail(call: string, how?: { error?: number; when?: string }): Promise<void>;
  /** The library's next call of that name does not return until `release()`. */
  hang(call: string): Promise<void>;
  /** Each call of that name takes so many milliseconds. */
  delay(call: string, ms: number): Promise<void>;
  /** Ends the calls that hang or are delayed just now. */
  release(): Promise<void>;
  /** Drops what `fail`, `hang` and `delay` have set. */
  clear(): Promise<void>;

  /**
   * Waits, at most `within` milliseconds, for what the reader is made to do next: `led green`,
   * `beep short 2`, `card 3AB1234/26`. What comes before it in the record is passed over for good.
   */
  expect(pattern: string, limit?: { within?: number }): Promise<void>;
  /** Resolves when no such thing comes for so many milliseconds. */
  expectNo(pattern: string, limit?: { within?: number }): Promise<void>;
  /** The last events of the event log. Default: all. */
  events(count?: number): Promise<string[]>;

  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** A `CardReader` without an agent, for unit tests: the test says what the reader does. */
export class StubReader extends CardReader {
  constructor(options?: ReaderOptions);
  /** The commands that the application sent, such as `Beep short 2`. All succeed. */
  readonly commands: string[];
  /** Connects a reader. Call this and what follows after `start()`. */
  plug(name?: string): void;
  unplug(): void;
  /** Reports a card, which stays until `remove()`. */
  hold(id: string): void;
  remove(): void;
  /** The next command fails with this message of the agent, without its "Error: ". */
  fail(message: string): void;
  /** Ends the agent, which is restarted. */
  kill(reason?: string): void;
}
