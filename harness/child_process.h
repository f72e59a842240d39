// A child process, driven over its standard input and output.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// Starts a program on construction. What goes wrong is a std::system_error, except that the end of
// the child's output is no error.
class child_process {
 public:
  // Environment variables to set for the child, by name.
  using environment = std::map<std::string, std::string>;

  struct options {
    environment variables = {};
    bool non_blocking = false;  // both pipes are in non-blocking mode at the child's ends
    std::string first = {};     // is in the pipe before the child starts; less than a pipe holds
  };

  child_process(const std::vector<std::string>& command, const options& how);
  ~child_process();  // kills the child if it still runs
  child_process(const child_process&) = delete;
  child_process& operator=(const child_process&) = delete;

  // Writes the bytes as they are; blocks while the child doesn't read.
  void send(const std::string& bytes) const;
  // What there is to read, and waits for it; 0 at the end of output.
  std::size_t receive(char* buffer, std::size_t size) const;

  void close_input();
  void close_output();  // stops listening
  // Waits for its end. Returns its exit status, or 128 + signal.
  int wait();

  pid_t pid() const { return child; }
  int input_descriptor() const { return input; }
  int output_descriptor() const { return output; }

 private:
  pid_t child = -1;
  int input = -1;   // the child's standard input
  int output = -1;  // the child's standard output
};
