// The output channel: everything that the agent sends passes through it, a text line at a time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

// The batch of lines waiting to be written, and the writer that empties it. There is one instance
// (see globals.h); the writer thread runs `loop`, and any thread may call the rest.
//
// `mutex` is held while a batch is written, so that producers wait for an application that does not
// read: while a batch is on its way nothing is added to what the agent has in memory. Never take
// another lock, and never call the reader library, while holding it.
class output_str_state {
 public:
  // Appends a line, without its newline, and wakes a writer that waits. The bytes are written
  // unchanged. A line pushed after the writer has returned is never written.
  void push_line(std::string text);

  // Makes `loop` return once the lines pending then are written. Asking twice changes nothing.
  void request_stop();

  // Writes batches until asked to stop: every line and its newline, in order. A failed write is
  // neither reported nor retried; from then on all lines are dropped.
  void loop();

  std::mutex mutex;
  std::condition_variable cond;    // notified when the batch fills and to stop; for the writer
  std::vector<std::string> lines;  // guarded by mutex; keeps its capacity between batches
  std::atomic<bool> stop{false};   // set under mutex, so that a writer about to wait can't miss it

 private:
  void write_batch();
};
