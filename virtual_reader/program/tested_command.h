// The command under test: a process group with pipes for its standard input and output.
#pragma once

#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "cancellation.h"
#include "child_process.h"
#include "event_log.h"
#include "guardian.h"

namespace virtual_reader {

// Logs what it is sent, what it prints, and how it exits.
class tested_command {
 public:
  // Starts it. Its standard output passes to this process's own. The function is called on another
  // thread when it has exited. Throws std::system_error.
  tested_command(const std::vector<std::string>& command, const std::string& socket_path,
                 const guardian& watching, event_log& log, const std::function<void()>& on_exit);
  ~tested_command();  // ends it, if end() has not yet
  tested_command(const tested_command&) = delete;
  tested_command& operator=(const tested_command&) = delete;

  struct ending {
    bool is_good = true;
    std::string what{};  // to be reported; empty if it exited well when it was asked to
  };
  // Closes its input, then asks and at last forces all processes that it has started to end; on
  // Linux also those that have left its process group. Takes some seconds at most. Output that
  // nobody reads by then is left out. To be called by one thread.
  ending end();

  // An agent prints the name of each reader: the last one and a colon are put before the line,
  // unless it begins with `Global:`. Throws failed_expectation if the command does not take the
  // line within some seconds, or its input has been closed.
  void send(const std::string& line);
  void close_input();
  exit_status wait() const { return exited.get(); }
  bool is_running() const;
  bool is_agent() const;

 private:
  void handle_line(const std::string& line);
  bool wait_until_ended(std::chrono::milliseconds limit) const;

  const std::string mark;  // an environment variable that finds its processes
  child_process process;
  const pid_t group;
  event_log& log;
  cancellation input_ends, output_ends;
  std::mutex sending;
  mutable std::mutex mutex;
  std::string reader_name;  // guarded by mutex
  std::promise<exit_status> exit;
  const std::shared_future<exit_status> exited;
  std::future<void> waiter, output;
};

}  // namespace virtual_reader
