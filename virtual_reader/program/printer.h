// Prints what happens, as it happens, and what else there is to say. Whoever does not read it holds
// up nobody: what does not fit is left out, which one line says.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "event_log.h"
#include "session.h"

namespace virtual_reader {

class printer {
 public:
  enum class channel { output, error };
  // Takes whole lines. It may wait for who reads them.
  using sink = std::function<void(channel, const std::string& lines)>;
  // How the text of an entry is printed, without a line feed.
  using look_function = std::function<std::string(const std::string& text)>;

  printer(const event_log& printed, channel of_entries, sink where, look_function look);
  ~printer() { end(std::chrono::seconds(2)); }

  // From any thread, without waiting. The lines come behind all entries that were there before.
  void say(channel where, const std::string& lines);
  void trace(tracing wanted);  // from what happens next on

  // Says what is left. If that takes longer the sink is still in use, and the process must end.
  void end(std::chrono::milliseconds limit);

 private:
  struct piece {
    std::uint64_t place;  // the end of the record when it came
    channel where;
    std::string lines;
    std::optional<tracing> traced = {};
  };
  void push(const piece& pushed);
  void print();
  void print_entries(std::uint64_t before);
  std::string lost_line();
  bool is_wanted(const event& entry) const;

  const event_log& log;
  const channel entries_go;
  const sink put;
  const look_function look_of;
  // The worker's:
  tracing traced = tracing::off;
  std::uint64_t next = 1;  // the entry to be printed
  std::uint64_t lost = 0;  // entries that had been dropped before they were printed

  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::deque<piece> pieces;
  std::size_t bytes = 0, left_out = 0;
  bool ending = false, ended = false;

  std::thread worker;
};

// Writes to the descriptor until all is written, or nobody is there to read it.
void write_all(int descriptor, const std::string& bytes);

}  // namespace virtual_reader
