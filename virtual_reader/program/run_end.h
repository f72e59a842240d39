// How a run ends: for the first reason that anybody has, while one thread waits for it.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace virtual_reader {

enum class result { passed, failed, error, command_failed, timed_out, interrupted };

struct verdict {
  result what = result::passed;
  std::string why = {};
  std::string details = {};  // lines: all that failed

  int exit_status() const;
  // "PASSED", or another word, with the reason if there is one.
  std::string text() const;
};

// Blocks the signals that end a run (SIGINT, SIGTERM, SIGHUP) in this thread and in those that it
// starts, for run_end to wait for: between two runs they stay pending. To be called before the
// first thread starts.
void block_signals();

// All members may be called from any thread, but for wait().
class run_end {
 public:
  void set(result what, const std::string& why = "");
  bool is_set() const;
  // Something that was expected did not happen. The run may go on, but cannot pass any more.
  void fail(const std::string& lines);
  // The verdict on what has failed; PASSED if nothing has.
  verdict failure() const;
  // Waits until it is set, and handles signals meanwhile. If it is not set within the limit, it is
  // result::timed_out; a limit of 0 is none. For one thread of the process at a time.
  verdict wait(std::chrono::milliseconds limit, const std::function<void(int)>& on_signal);

 private:
  mutable std::mutex mutex;
  std::optional<verdict> first;  // guarded by mutex, as the rest
  std::string first_failure, all_failures;
};

}  // namespace virtual_reader
