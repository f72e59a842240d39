#include "run_end.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

namespace virtual_reader {

namespace {

constexpr int wake_up = SIGUSR1;  // this process sends it to itself

sigset_t awaited_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGALRM, wake_up}) sigaddset(&signals, number);
  return signals;
}

// SIGALRM comes after the limit, and then again and again; never if it is 0.
void set_alarm(std::chrono::milliseconds limit) {
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(limit.count() / 1000);
  timer.it_value.tv_usec = static_cast<suseconds_t>(limit.count() % 1000 * 1000);
  timer.it_interval.tv_usec = 100'000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

int verdict::exit_status() const {
  return what == result::interrupted ? 4 : static_cast<int>(what);  // as timed_out
}

std::string verdict::text() const {
  static const char* const words[] = {"PASSED",         "FAILED",    "ERROR",
                                      "COMMAND FAILED", "TIMED OUT", "INTERRUPTED"};
  return words[static_cast<int>(what)] + (why.empty() ? "" : ": " + why);
}

void block_signals() {
  const sigset_t signals = awaited_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

void run_end::set(result what, const std::string& why) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!first) first = {what, why};
  kill(getpid(), wake_up);
}

bool run_end::is_set() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return first.has_value();
}

void run_end::fail(const std::string& lines) {
  const std::lock_guard<std::mutex> lock(mutex);
  all_failures += lines;
  if (!first_failure.empty()) return;
  // Its first line, but for what leads to the next, and the word that the verdict has.
  first_failure = lines.substr(0, std::min(lines.find('\n'), lines.find("; since then:")));
  const std::string word = "FAILED: ";
  const std::size_t at = first_failure.find(word);
  if (at != first_failure.npos) first_failure.erase(at, word.size());
}

verdict run_end::failure() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return {first_failure.empty() ? result::passed : result::failed, first_failure, all_failures};
}

verdict run_end::wait(std::chrono::milliseconds limit, const std::function<void(int)>& on_signal) {
  const auto until = std::chrono::steady_clock::now() + limit;
  const sigset_t signals = awaited_signals();
  set_alarm(limit);
  while (!is_set()) {
    int number = 0;
    sigwait(&signals, &number);
    if (number == SIGINT || number == SIGTERM || number == SIGHUP) on_signal(number);
    if (limit.count() > 0 && std::chrono::steady_clock::now() >= until) {
      set(result::timed_out, "after " + std::to_string(limit.count()) + " ms");
    }
  }
  set_alarm(std::chrono::milliseconds(0));
  const std::lock_guard<std::mutex> lock(mutex);
  return *first;
}

}  // namespace virtual_reader
