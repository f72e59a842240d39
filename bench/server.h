// A process that answers lines, at the far end of two pipes.
#pragma once

#include <sys/types.h>

#include <string>

// Starts the command on construction; ends its input and waits for it on destruction. Whatever goes
// wrong ends the program with a message: a benchmark has no use for half a result.
class server {
 public:
  // `first`: bytes to have ready in the pipe before the process starts, fewer than a pipe holds.
  server(char* const command[], const std::string& first);
  server(const server&) = delete;
  server& operator=(const server&) = delete;
  ~server();

  void send(const char* bytes, std::size_t size) const;

  // What there is to read, at least one byte; waits for it.
  std::size_t receive(char* buffer, std::size_t size) const;

  // Reads until the output ends in a line feed, and returns it all.
  std::string receive_lines() const;

  // Resident memory in KiB, as the system counts it.
  long resident() const;

  // Nothing sent is left in the pipe, and every thread of the process sleeps.
  bool has_read_all() const;

  // How often the system switched away from one of the process's threads, so far.
  long switches() const;

 private:
  pid_t process = 0;
  int input = -1;
  int output = -1;
};

[[noreturn]] void fail(const std::string& what);
