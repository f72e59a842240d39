// Prints events as they come, and other lines behind them.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "cancellation.h"
#include "log_follower.h"
#include "session.h"

namespace virtual_reader {

class printer {
 public:
  enum class channel { output, error };

  // Events go to the channel. On a terminal they are marked if another program's lines are there.
  printer(const event_log& log, channel event_channel, bool is_alone);
  // Prints what is left, for 2 s at most.
  ~printer();

  // From any thread. Prints all events in the log, and then the lines. Waits for the reader of the
  // output, which holds up no event: one line says how many were dropped meanwhile.
  void print(channel where, const std::string& lines);
  void cancel() { ending.cancel(); }               // prints no more
  void trace(tracing wanted) { traced = wanted; }  // from any thread, without waiting

 private:
  void write(channel where, const std::string& lines);
  void print_events();
  bool is_wanted(const std::string& text, bool is_idle) const;

  const event_log& log;
  const channel event_channel;
  const std::string mark;
  cancellation ending;
  std::atomic<tracing> traced{tracing::off};
  std::mutex mutex;
  std::uint64_t next = 1;  // the event to be printed, guarded by mutex
  log_follower follower;
};

}  // namespace virtual_reader
