// A child process, driven over its standard input and output: the command under test, the page's
// server, and what tests and benchmarks start.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// How a process ended.
struct exit_status {
  bool is_signal = false;
  int number = 0;

  bool is_success() const { return !is_signal && number == 0; }
  int shell_status() const { return is_signal ? 128 + number : number; }
  std::string text() const;  // like "status 7" or "signal 6"
};

// Starts a program on construction. What goes wrong is a std::system_error, except that the end of
// the child's output is no error. The child has no signals blocked or ignored.
class child_process {
 public:
  // Environment variables to set for the child, by name.
  using environment = std::map<std::string, std::string>;

  struct options {
    environment variables = {};
    bool is_non_blocking = false;  // both pipes are in non-blocking mode at the child's ends
    std::string first_input = {};  // is in the pipe before the child starts; less than a pipe holds
    bool has_own_group = false;    // leads a process group of its own
  };

  child_process(const std::vector<std::string>& command, const options& how);
  ~child_process();  // kills the child if it still runs, and waits for it
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // Writes the bytes as they are; blocks while the child doesn't read.
  void send(const std::string& bytes) const;
  // Blocks until there is something to read; 0 at the end of output.
  std::size_t receive(char* buffer, std::size_t size) const;

  void close_input();
  void close_output();  // what the child writes then fails
  exit_status wait();   // blocks until it has ended; once

  pid_t pid() const { return child; }
  int input_descriptor() const { return input; }
  int output_descriptor() const { return output; }

 private:
  pid_t child = -1;
  bool is_running = true;
  int input = -1;   // the child's standard input
  int output = -1;  // the child's standard output
};
