// Prints events as they come, and what else there is to print. A slow reader of the output holds up
// nobody: what does not fit is left out, and one line says so.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "cancellation.h"
#include "event_log.h"
#include "session.h"

namespace virtual_reader {

class printer {
 public:
  enum class channel { output, error };
  // Takes whole lines. May wait for the reader of the output until it is cancelled.
  using sink_function =
      std::function<void(channel, const std::string& lines, const cancellation& ending)>;
  // How the text of an event is printed, without a newline.
  using format_function = std::function<std::string(const std::string& text)>;

  printer(const event_log& log, channel event_channel, sink_function sink, format_function format);
  // Prints what is left, for 2 s at most.
  ~printer();

  // From any thread, without waiting. The lines are printed after all events that were in the log.
  void print(channel where, const std::string& lines);
  void trace(tracing wanted);  // from the next event on

 private:
  struct piece {
    std::uint64_t place;  // the end of the log when it was pushed
    channel where;
    std::string lines;
    std::optional<tracing> traced = {};
  };
  void push(const piece& pushed);
  void run();
  void print_events(std::uint64_t before);
  std::string lost_line();
  bool is_wanted(const event& event) const;

  const event_log& log;
  const channel event_channel;
  const sink_function sink;
  const format_function format;
  cancellation ending;
  // The worker's:
  tracing traced = tracing::off;
  std::uint64_t next = 1;  // the event to be printed
  std::uint64_t lost = 0;  // events that had been dropped before they were printed

  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::deque<piece> pieces;
  std::size_t bytes = 0, left_out = 0;
  bool is_ending = false, has_ended = false;

  std::thread worker;
};

// For lines that go to a terminal beside another program's, or alone, or to something else.
printer::format_function choose_format(int descriptor, bool is_alone);

}  // namespace virtual_reader
