// The program under test: a process group with pipes for its standard input and output.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "guardian.h"

namespace virtual_reader {

class host {
 public:
  // Both are called on threads of their own.
  using line_function = std::function<void(const std::string& line)>;
  using end_function = std::function<void(int status)>;

  // Starts it. Its standard output passes to this process's own, and is told line by line; its end
  // with the exit status, or 128 + signal. Throws std::runtime_error with one line.
  host(const std::vector<std::string>& command, const std::string& socket_path,
       const guardian& watching, line_function on_line, end_function on_end);
  // To be used before the end of the object: closes its input, then asks and at last makes all of
  // its process group end. Returns what was wrong with how it ended, or nothing.
  std::string end();

  // False if it does not take that within some seconds.
  bool send(const std::string& bytes) const;

 private:
  void pass_output(const line_function& on_line) const;
  void wait_for_end(const end_function& on_end);
  bool wait_gone(std::chrono::milliseconds limit);

  pid_t group = -1;
  int input = -1, output = -1;  // ours of both pipes
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<int> status;  // guarded by mutex
  std::thread reader, waiter;
};

// Like "status 7" or "signal 9".
std::string status_text(int status);

}  // namespace virtual_reader
