// Executes verbs of a terminal, a pipe, a script or a control client.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "expectations.h"

namespace virtual_reader {

// Which calls are printed; quiet leaves out idle polls.
enum class tracing { off, quiet, on };

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

// What a session needs of its owner. Without one of these, it lacks that ability.
struct session_callbacks {
  std::function<void(const std::string& line)> answer;  // what a verb has to say, line by line
  std::function<bool()> is_interrupted;
  std::function<void(tracing)> trace;
  std::function<void(const std::string& line)> send;  // to the command under test
  std::function<void()> quit;
  std::function<run_state()> run;
  std::function<void()> followed;  // a control client follows the events from now on
  bool may_follow = false;
};

struct command;

// Executes verbs: of a terminal, a pipe, a script or a control client. For one thread; others may
// use the device, and what is expected of it, at the same time.
class session {
 public:
  session(device& device_to_use, expectations& of_the_session, session_callbacks all_callbacks)
      : reader(device_to_use), expected(of_the_session), callbacks(std::move(all_callbacks)) {}

  // Executes one line, if there is anything in it. Throws syntax_error, and then nothing has
  // changed; failed_expectation; or cancelled. Takes long only for verbs that wait.
  void execute(const std::string& line) const;
  void execute(const command&) const;

  // What the verbs do.
  void answer(const std::string& line) const { callbacks.answer(line); }
  void show(bool as_json) const;  // else each field on a line of its own
  struct events_wanted {
    bool as_json, follows, with_polls;
    std::size_t most;
  };
  void show_events(const events_wanted& wanted) const;
  void wait(std::chrono::milliseconds time) const;

  device& reader;
  expectations& expected;
  const session_callbacks callbacks;
};

}  // namespace virtual_reader
