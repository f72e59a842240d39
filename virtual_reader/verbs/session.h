// One who tells a virtual reader what to do: a terminal, a pipe, a file, another process.
#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device.h"
#include "expectation.h"

namespace virtual_reader {

// Which calls are printed; quiet leaves out polls that tell nothing new.
enum class tracing { off, quiet, on };

// An expectation that did not hold: a line that says which, and the entries since the cursor.
struct failed_expectation : std::runtime_error {
  failed_expectation(const std::string& what, std::vector<std::string> since_cursor)
      : runtime_error(what), entries(std::move(since_cursor)) {}
  std::vector<std::string> entries;

  std::string text() const;  // for people: lines, each with its line feed
};
// Whoever asked does not want to know any more.
struct cancelled {};

// What is run with the reader, as `show --json` has it.
struct run_state {
  struct command {
    std::string text;
    bool is_running = false;
    bool is_agent = false;  // this program itself sends lines to it
  };
  struct script {
    std::string path;
    std::size_t line = 0;
    bool is_finished = false;
    std::vector<std::string> lines;
  };
  std::optional<command> command_under_test;
  std::optional<script> played;
};

// What a session needs of whoever runs it. What is missing, it can't do.
struct session_callbacks {
  std::function<void(const std::string& line)> answer;  // what a verb has to say, line by line
  std::function<bool()> is_interrupted;
  std::function<void(tracing)> trace;
  // Sends a command to the host; the answer may be empty for any. Checked some time later.
  std::function<void(const std::string& command, const std::string& answer)> host;
  std::function<void()> quit;
  std::function<run_state()> run;
  std::function<void()> followed;  // `events follow` has begun
  bool may_follow = false;
};

// For one thread. It only uses the device, which others may use at the same time. The cursor is
// where the next expectation begins in the record, and may belong to several sessions.
class session {
 public:
  session(device& told_device, std::atomic<std::uint64_t>& own_cursor, session_callbacks around)
      : reader(told_device), cursor(own_cursor), callbacks(std::move(around)) {}

  // Carries out one line, if there is anything in it. Throws syntax_error, and then nothing has
  // changed; failed_expectation; or cancelled. Takes long only for `wait`, `expect`, `host` and
  // `record follow`.
  void execute(const std::string& line) const;

  // What the verbs do.
  void answer(const std::string& line) const { callbacks.answer(line); }
  void show(const std::string& topic) const;
  void show_as_json() const;
  struct events_wanted {
    bool as_json, follows, with_polls;
    std::size_t most;
  };
  void show_events(const events_wanted& wanted) const;
  void show_calls(std::size_t most) const;
  void wait(std::chrono::milliseconds time) const;
  void expect(const expectation& what) const;

  device& reader;

 private:
  [[noreturn]] void fail(const std::string& what, std::uint64_t from) const;

  std::atomic<std::uint64_t>& cursor;

 public:
  const session_callbacks callbacks;
};

}  // namespace virtual_reader
