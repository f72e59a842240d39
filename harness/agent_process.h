// The agent as a child process that is sent lines and answers in lines.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "child_process.h"

// Nobody waits longer than this for a line that must come.
constexpr std::chrono::seconds patience{20};

class agent_process : public child_process {
 public:
  explicit agent_process(const std::string& executable, const environment& variables = {},
                         bool non_blocking = false)
      : child_process({executable}, {variables, non_blocking, {}}) {}

  void send_line(const std::string& line) { send(line + "\n"); }

  // The next line, without its line feed; "(end)" at the end of output, "(timeout)" when none came.
  std::string next_line(std::chrono::milliseconds limit = patience);
  // Skips lines until one begins so, and returns it; or "(end)" or "(timeout)".
  std::string line_beginning(const std::string& start);
  // Skips lines until a reader is announced, and returns its name. Throws when none is.
  std::string await_reader();
  // Sends a line and returns the next line that answers it, skipping events and log lines.
  std::string ask(const std::string& line);
  // All that is left, up to the end of output.
  std::vector<std::string> remaining_lines();

  // Waits for its end. Returns its exit status, or 128 + signal.
  int wait() { return child_process::wait().shell_status(); }
  // Closes its input, reads its output to the end and returns its exit status, or 128 + signal.
  int finish();

 private:
  std::string pending;
};
