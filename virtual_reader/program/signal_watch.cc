#include "signal_watch.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

namespace virtual_reader {

namespace {

constexpr int end_of_watch = SIGUSR1;  // sent to the watcher alone

sigset_t watched_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, end_of_watch}) sigaddset(&signals, number);
  return signals;
}

}  // namespace

void block_signals() {
  const sigset_t signals = watched_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

signal_watch::signal_watch(std::function<void(int number)> on_signal)
    : watcher([this, on_signal = std::move(on_signal)] {
        const sigset_t signals = watched_signals();
        for (int number = 0; sigwait(&signals, &number) == 0 && !is_ending;) {
          if (number != end_of_watch) on_signal(number);
        }
      }) {}

signal_watch::~signal_watch() {
  is_ending = true;
  pthread_kill(watcher.native_handle(), end_of_watch);
  watcher.join();
}

}  // namespace virtual_reader
