#include "signals.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

ending_signals::ending_signals(std::function<void()> on_signal) {
  signal(SIGPIPE, SIG_IGN);
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  thread = std::thread([this, on_signal = std::move(on_signal)] {
    int number = 0;
    sigwait(&signals, &number);
    close(ends[1]);
    on_signal();
  });
}

ending_signals::~ending_signals() {
  pthread_kill(thread.native_handle(), SIGTERM);  // if it still waits for one
  thread.join();
  close(ends[0]);
}
