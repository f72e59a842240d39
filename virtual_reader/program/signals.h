// The signals that end the program, taken on a thread instead of in a handler.
#pragma once

#include <csignal>
#include <functional>
#include <thread>

class ending_signals {
 public:
  // To be made before any other thread, which then leaves SIGINT, SIGTERM and SIGHUP to it too.
  // Calls the function once, on a thread of its own, when the first of them comes.
  explicit ending_signals(std::function<void()> on_signal);
  ~ending_signals();
  ending_signals(const ending_signals&) = delete;
  ending_signals& operator=(const ending_signals&) = delete;

  // Readable once a signal has come.
  int descriptor() const { return ends[0]; }

 private:
  sigset_t signals;
  int ends[2] = {-1, -1};
  std::thread thread;
};
