// The program under test: a process group with pipes for its standard input and output.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
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
       const guardian& watching, const line_function& on_line, const end_function& on_end);
  // Must not be called: threads that nobody waits for may use it, for as long as the process lives.
  ~host() = delete;

  struct ending {
    bool is_good = true;
    std::string what{};  // is to be said about it; nothing if it ended well with its input
  };
  // Closes its input, then asks and at last makes all of its process group end. Takes some seconds
  // at most: output that nobody reads by then, or that comes from outside of the group, is left
  // out.
  ending end();

  // False if it does not take that within some seconds, or its input has been closed.
  bool send(const std::string& bytes);
  void close_input();

 private:
  void pass_output(const line_function& on_line) const;
  void wait_for_end(const end_function& on_end);
  void note_finished();
  bool wait_gone(std::chrono::milliseconds limit);
  std::optional<int> status_told();

  pid_t group = -1;
  int output = -1;  // ours of the pipe
  std::atomic<bool> input_ends{false};
  std::mutex sending;
  int input = -1;  // ours of the pipe, guarded by sending
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::optional<int> status;
  int unfinished = 2;  // threads: who passes the output on, and who waits for the end
};

// Like "status 7" or "signal 9".
std::string status_text(int status);

}  // namespace virtual_reader
