// The signals that end a run: SIGINT, SIGTERM and SIGHUP.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace virtual_reader {

// Blocks them in this thread and in those that it starts, for signal_watch to wait for. Between two
// watches they stay pending. To be called before the first thread starts.
void block_signals();

// Calls the function for each of them, on a thread of its own, for as long as it exists.
class signal_watch {
 public:
  explicit signal_watch(std::function<void(int number)> on_signal);
  ~signal_watch();
  signal_watch(const signal_watch&) = delete;
  signal_watch& operator=(const signal_watch&) = delete;

 private:
  std::atomic<bool> is_ending{false};
  std::thread watcher;
};

}  // namespace virtual_reader
