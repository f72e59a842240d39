// The host's side: the real agent as a child process, driven over its two pipes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

// No test waits longer than this for what must come.
constexpr std::chrono::seconds patience{20};

class agent_process {
 public:
  // Environment variables to set for the agent, by name.
  using environment = std::map<std::string, std::string>;

  // With `non_blocking`, both its pipes are in non-blocking mode at its own ends.
  explicit agent_process(const std::string& executable, const environment& variables = {},
                         bool non_blocking = false);
  ~agent_process();  // kills it if it still runs
  agent_process(const agent_process&) = delete;
  agent_process& operator=(const agent_process&) = delete;

  // Writes the bytes as they are; blocks while the agent doesn't read.
  void send(const std::string& bytes);
  void send_line(const std::string& line) { send(line + "\n"); }
  void close_input();
  void close_output();  // stops listening

  // The next line, without its line feed; "(end)" at the end of output, "(timeout)" when none came.
  std::string next_line(std::chrono::milliseconds limit = patience);
  // The next line that is not a card's.
  std::string next_line_but_cards();
  // Skips lines until one begins so, and returns it; or "(end)" or "(timeout)".
  std::string line_beginning(const std::string& start);
  // Sends a line and returns the next line that answers it, skipping events and log lines.
  std::string ask(const std::string& line);
  // All that is left, up to the end of output.
  std::vector<std::string> remaining_lines();

  // Closes its input, reads its output to the end and returns its exit status, or 128 + signal.
  int finish();
  int wait();

  pid_t pid() const { return child; }
  int input_descriptor() const { return input; }
  int output_descriptor() const { return output; }

 private:
  pid_t child = -1;
  int input = -1;   // the agent's standard input
  int output = -1;  // the agent's standard output
  std::string pending;
};
