'use strict';

const LONGEST_TIMER_MS = 2 ** 31 - 1;

// Calls back once it has run for so many milliseconds; Infinity is never. It counts in fifths, and
// reads what has arrived before it calls back. So however long the process was busy or suspended
// counts as one fifth at most.
class Countdown {
  #left_ms;
  #step_ms;
  #callback;
  #timer = null;
  #immediate = null;
  #started;

  constructor(ms, callback) {
    this.#left_ms = ms;
    this.#step_ms = Math.min(ms / 5, LONGEST_TIMER_MS);
    this.#callback = callback;
  }

  run() {
    if (this.#timer || this.#left_ms === Infinity) return this;
    this.#started = performance.now();
    const step = () => {
      this.pause();
      if (this.#left_ms > 0) this.run();
      else this.#callback();
    };
    const wait_ms = Math.min(this.#step_ms, this.#left_ms);
    this.#timer = setTimeout(() => (this.#immediate = setImmediate(step)), wait_ms);
    return this;
  }

  pause() {
    if (!this.#timer) return;
    clearTimeout(this.#timer);
    clearImmediate(this.#immediate);
    this.#timer = null;
    this.#left_ms -= Math.min(performance.now() - this.#started, this.#step_ms);
  }
}

module.exports = { Countdown };
