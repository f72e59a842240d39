// The command under test: a process group with pipes for its standard input and output.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cancellation.h"
#include "child_process.h"
#include "guardian.h"

namespace virtual_reader {

class tested_command {
 public:
  // Both are called on threads of this object.
  using line_function = std::function<void(const std::string& line)>;
  using exit_function = std::function<void(const exit_status& status)>;

  // Starts it. Its standard output passes to this process's own and is handed over line by line.
  // Throws std::system_error.
  tested_command(const std::vector<std::string>& command, const std::string& socket_path,
                 const guardian& watching, line_function on_line, exit_function on_exit);
  ~tested_command();  // ends it, if end() has not yet
  tested_command(const tested_command&) = delete;
  tested_command& operator=(const tested_command&) = delete;

  struct ending {
    bool is_good = true;
    std::string what{};  // to be reported; empty if it exited well at the end of its input
  };
  // Closes its input, then asks and at last forces all processes that it has started to end; on
  // Linux also those that have left its process group. Takes some seconds at most. Output that
  // nobody reads by then is left out. To be called by one thread.
  ending end();

  // False if it does not take the bytes within some seconds, or its input has been closed.
  bool send(const std::string& bytes);
  void close_input();
  std::optional<exit_status> status() const;  // nothing while it runs

  // An agent prints the name of each reader. The line as it is to be sent: with the last name and a
  // colon before it, unless it begins with `Global:` or none was printed.
  std::string addressed(const std::string& line) const;
  bool is_agent() const;

 private:
  void pass_output();
  void handle_line(const std::string& line);
  void wait_for_exit();
  bool wait_until_ended(std::chrono::milliseconds limit);

  const std::string mark;  // an environment variable that finds its processes
  child_process process;
  const pid_t group;
  const line_function on_line;
  const exit_function on_exit;
  cancellation input_ends, output_ends;
  std::atomic<bool> has_ended{false};
  std::mutex sending;
  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::optional<exit_status> known_status;
  bool has_output = true;
  std::string reader_name;

  std::thread waiter, output;
};

}  // namespace virtual_reader
