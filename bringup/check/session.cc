#include "session.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

extern char** environ;

namespace bringup {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::size_t longest_print = 1000;

volatile sig_atomic_t signalled = 0;
void note_signal(int) { signalled = 1; }

// Blocked but while somebody waits for them, so that none comes between a look and a wait.
const sigset_t& deaf() {
  static const sigset_t set = [] {
    sigset_t all;
    sigemptyset(&all);
    struct sigaction action {};
    action.sa_handler = note_signal;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
      sigaddset(&all, number);
      sigaction(number, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    return all;
  }();
  return set;
}

bool signal_came() {
  sigset_t pending;
  sigpending(&pending);
  return signalled || sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1 ||
         sigismember(&pending, SIGHUP) == 1;
}

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

// Waits until one of them has bytes or an end; false when neither has in time.
bool wait_for(int one, int other, clock::time_point until, bool may_interrupt) {
  sigset_t none;
  sigemptyset(&none);
  for (;;) {
    const auto left = std::max(clock::duration::zero(), until - clock::now());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    timespec time{};
    time.tv_sec = static_cast<time_t>(seconds.count());
    time.tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count());
    fd_set readable;
    FD_ZERO(&readable);
    for (const int descriptor : {one, other}) {
      if (descriptor >= 0) FD_SET(descriptor, &readable);
    }
    const int ready = pselect(std::max(one, other) + 1, &readable, nullptr, nullptr, &time,
                              may_interrupt ? &none : &deaf());
    if (may_interrupt && signalled) throw interrupted();
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) fail("select");
  }
}

}  // namespace

session::session(options given) : chosen(std::move(given)), person_is_there(chosen.person) {
  deaf();
  start();
}

session::~session() { end(); }

// A process of its own program anew, and not only forked: macOS lets no forked process use what a
// reader library needs.
void session::start() {
  int ends[2], pipe_ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 || pipe(pipe_ends) != 0) fail("a pipe");
  for (const int each : {ends[0], ends[1], pipe_ends[0], pipe_ends[1]}) {
    fcntl(each, F_SETFD, FD_CLOEXEC);
  }
  fcntl(pipe_ends[0], F_SETFL, O_NONBLOCK);
  control = ends[0];
  output = pipe_ends[0];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t defaults = none;
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  // A group of its own, so that Ctrl-C reaches this process alone, which then puts things right.
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  std::string program = chosen.program, library = chosen.library, option = "--make-calls";
  char* const arguments[] = {program.data(), option.data(), library.data(), nullptr};
  const int error =
      posix_spawnp(&process, program.c_str(), &actions, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  close(pipe_ends[1]);
  if (error != 0) fail(program, error);

  answer told;
  std::string text;
  const auto until = clock::now() + chosen.limit;
  do {
    while (!take_answer(&told, &text)) {
      if (!wait_for_library(until, false)) give_up("loading the library");
    }
    drain("loading");
    take_up(told, "");
  } while (told.what != answer::kind::loaded);
  if (told.is_null) throw std::runtime_error(text);
  missing.clear();
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t comma = std::min(text.find(", ", at), text.size());
    missing.push_back(text.substr(at, comma - at));
    at = comma + 2;
  }
}

int session::end() {
  int status = 0;
  if (process < 0) return status;
  close(std::exchange(control, -1));
  received.clear();
  const auto until = clock::now() + std::chrono::seconds(1);
  while (waitpid(process, &status, WNOHANG) == 0) {
    if (clock::now() >= until) kill(process, SIGKILL);
    drain("its end");
    usleep(1000);
  }
  drain("its end");
  close(std::exchange(output, -1));
  process = -1;
  return status;
}

bool session::wait_for_library(clock::time_point until, bool may_interrupt) {
  if (!wait_for(control, output, until, may_interrupt && !holds_out)) return false;
  char bytes[4096];
  const ssize_t count = recv(control, bytes, sizeof bytes, MSG_DONTWAIT);
  if (count > 0) received.append(bytes, static_cast<std::size_t>(count));
  if (count == 0) {
    const int status = end();
    throw does_not_hold(WIFSIGNALED(status)
                            ? "ended the process: " + std::string(strsignal(WTERMSIG(status)))
                            : "ended the process with status " +
                                  std::to_string(WEXITSTATUS(status)));
  }
  return true;
}

void session::give_up(const std::string& call) {
  kill(process, SIGKILL);
  end();
  throw does_not_hold(call + " did not return in " + std::to_string(chosen.limit.count()) + " s");
}

void session::drain(const std::string& call) {
  char bytes[4096];
  for (ssize_t count; (count = read(output, bytes, sizeof bytes)) > 0;) {
    std::string& all = printed[call];
    all.append(bytes, static_cast<std::size_t>(count));
    if (all.size() > longest_print) all.resize(longest_print);
  }
}

bool session::take_answer(answer* told, std::string* text) {
  if (received.size() < sizeof *told) return false;
  std::memcpy(told, received.data(), sizeof *told);
  if (received.size() - sizeof *told < told->text_size) return false;
  *text = received.substr(sizeof *told, told->text_size);
  received.erase(0, sizeof *told + told->text_size);
  return true;
}

void session::take_up(const answer& told, const std::string& call) {
  if (told.what != answer::kind::said) return;
  said.push_back(
      {told.during_call ? call : "", told.result, told.other_thread, told.after_removal});
}

session::outcome session::call(function what, std::int16_t first, std::int16_t second,
                               const record& given) {
  if (signal_came() && !holds_out) throw interrupted();
  const std::string name = name_of(what);
  if (std::count(missing.begin(), missing.end(), name) != 0) {
    throw could_not_be_tried("the library lacks " + name);
  }
  if (process < 0) {
    start();
    call(function::SetMarkerFunction, 1);
    if (reader_wanted && !connect()) throw could_not_be_tried("no reader is connected any more");
  }
  drain("between calls");
  const request asked{what, first, second, fill++, given};
  answer told;
  std::string text;
  try {
    if (send(control, &asked, sizeof asked, 0) != sizeof asked) {
      wait_for_library(clock::now(), false);  // which says how it has ended
    }
    // No signal cuts a call off: who knows what it is doing to the reader.
    for (const auto until = clock::now() + chosen.limit;;) {
      while (!take_answer(&told, &text)) {
        if (!wait_for_library(until, false)) give_up(name);
      }
      if (told.what == answer::kind::returned) break;
      take_up(told, name);
    }
  } catch (const does_not_hold& end) {
    const bool is_named = std::strncmp(end.what(), name.c_str(), name.size()) == 0;
    throw does_not_hold(is_named ? end.what() : name + " " + end.what());
  }
  drain(name);
  const std::chrono::nanoseconds time{told.nanoseconds};
  if (what != function::getPartNumberString_read_again) times[name].push_back(time);
  const guarded_record before = between_guards(given, asked.fill);
  std::size_t ahead = 0, behind = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const bool changed = before[i] != told.area[i];
    if (i < guard_size) ahead += changed;
    if (i >= guard_size + sizeof(record)) behind += changed;
  }
  if (ahead) overruns.insert(name + " wrote " + std::to_string(ahead) + " bytes before its record");
  if (behind)
    overruns.insert(name + " wrote " + std::to_string(behind) + " bytes behind its record");
  record bytes;
  std::memcpy(bytes.data(), &told.area[guard_size], bytes.size());
  return {told.result, time, bytes, text, told.is_null};
}

std::string session::failure(function what, std::int64_t result) {
  return std::string(name_of(what)) + " " + std::to_string(result) + " (error " +
         std::to_string(call(function::GetLastLibErr).result) + ")";
}

bool session::connect(bool patience) {
  reader_wanted = false;
  const auto attempt = [this] {
    call(function::USBDisconnect);
    call(function::SetDevTypeSrch, 0);
    return call(function::usbConnect).result != 0;
  };
  return reader_wanted = patience ? within_limit(attempt) : attempt();
}

void session::need_reader() const {
  if (!reader_wanted) throw could_not_be_tried("no reader is connected");
}

void session::pause(std::chrono::milliseconds time) {
  const auto until = clock::now() + time;
  answer told;
  std::string text;
  // Without a process there is only the time.
  while (process < 0 ? wait_for(-1, -1, until, !holds_out) : wait_for_library(until, true)) {
    while (take_answer(&told, &text)) take_up(told, "");
    drain("between calls");
  }
}

std::string session::answer_of_person(const std::string& prompt) {
  if (!person_is_there) throw could_not_be_tried("nobody was asked");
  std::printf("  ? %s ", prompt.c_str());
  std::fflush(stdout);
  std::string line;
  for (char next = 0; next != '\n';) {
    wait_for(STDIN_FILENO, -1, clock::now() + std::chrono::hours(24), true);
    if (read(STDIN_FILENO, &next, 1) <= 0) {
      person_is_there = false;
      std::printf("\n");
      throw could_not_be_tried("nobody was there to ask");
    }
    if (next != '\n' && next != ' ' && next != '\r') line += next;
  }
  if (line == "s" || line == "skip") throw could_not_be_tried("left out");
  return line;
}

void session::please(const std::string& what) {
  const std::string line = answer_of_person(what + " [Enter, then do it; s leaves it out]");
  if (line == "n") throw could_not_be_tried("left out");
}

bool session::is_it_so(const std::string& question) {
  for (;;) {
    const std::string line = answer_of_person(question + " [y, n; s leaves it out]");
    if (line == "y" || line == "yes") return true;
    if (line == "n" || line == "no") return false;
  }
}

}  // namespace bringup
