#include "host.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <cerrno>
#include <climits>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "printer.h"
#include "wire.h"

extern char** environ;

namespace virtual_reader {

namespace {

constexpr std::chrono::milliseconds step_limit{2000};  // of each step of its end
const std::string socket_variable = "VIRTUAL_READER_SOCKET=";

// Whatever folder the host goes to, unless that would be too long for a socket.
std::string absolute(const std::string& path) {
  char folder[PATH_MAX];
  if (path[0] == '/' || !getcwd(folder, sizeof folder)) return path;
  const std::string whole = std::string(folder) + "/" + path;
  return address_of(whole) ? whole : path;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Neither end may leak into another child: it would keep the pipe open.
void make_pipe(int ends[2]) {
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (int i = 0; i < 2; ++i) fcntl(ends[i], F_SETFD, FD_CLOEXEC);
}

}  // namespace

std::string status_text(int status) {
  return status < 128 ? "status " + std::to_string(status)
                      : "signal " + std::to_string(status - 128);
}

host::host(const std::vector<std::string>& command, const std::string& socket_path,
           const guardian& watching, const line_function& on_line, const end_function& on_end) {
#ifdef __linux__
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it leaves behind comes here, to be waited for
#endif
  int in[2], out[2];
  make_pipe(in);
  make_pipe(out);
  std::vector<std::string> arguments = command,
                           variables = {socket_variable + absolute(socket_path)};
  for (char** each = environ; *each; ++each) {
    if (std::string(*each).rfind(socket_variable, 0) != 0) variables.emplace_back(*each);
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  const int error = posix_spawnp(&group, arguments[0].c_str(), &actions, &attributes,
                                 pointers_to(arguments).data(), pointers_to(variables).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  input = in[1];
  output = out[0];
  if (error != 0) {
    close(input);
    close(output);
    throw std::runtime_error("the host cannot be started: " + arguments[0] + ": " +
                             std::generic_category().message(error));
  }
  watching.watch(group);
  fcntl(input, F_SETFL, O_NONBLOCK);
  std::thread([this, on_line] {
    pass_output(on_line);
    note_finished();
  }).detach();
  std::thread([this, on_end] {
    wait_for_end(on_end);
    note_finished();
  }).detach();
}

bool host::send(const std::string& bytes) {
  const moment until = in(std::chrono::seconds(5));
  const std::lock_guard<std::mutex> lock(sending);
  for (std::size_t sent = 0; sent < bytes.size();) {
    if (input_ends || std::chrono::steady_clock::now() >= until) return false;
    const ssize_t count = write(input, bytes.data() + sent, bytes.size() - sent);
    if (count > 0) sent += static_cast<std::size_t>(count);
    if (count >= 0 || errno == EINTR) continue;
    if (errno != EAGAIN) return false;
    wait_for(input, POLLOUT, in(std::chrono::milliseconds(50)));
  }
  return true;
}

void host::close_input() {
  input_ends = true;  // whoever sends just now gives up
  const std::lock_guard<std::mutex> lock(sending);
  if (input >= 0) close(input);
  input = -1;
}

void host::note_finished() {
  const std::lock_guard<std::mutex> lock(mutex);
  --unfinished;
  changed.notify_all();
}

std::optional<int> host::status_told() {
  const std::lock_guard<std::mutex> lock(mutex);
  return status;
}

void host::pass_output(const line_function& on_line) const {
  std::string pending;
  char block[65536];
  for (ssize_t count; (count = read(output, block, sizeof block)) != 0;) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) break;
    const std::string came(block, static_cast<std::size_t>(count));
    pending += came;
    std::size_t start = 0;
    for (std::size_t end; (end = pending.find('\n', start)) != pending.npos; start = end + 1) {
      on_line(pending.substr(start, end - start));
    }
    pending.erase(0, start);
    if (pending.size() > longest_event) on_line(std::exchange(pending, ""));
    write_all(STDOUT_FILENO, came);
  }
  if (!pending.empty()) on_line(pending);
}

// Waits for the host, and for what of its group is left to this process.
void host::wait_for_end(const end_function& on_end) {
  for (;;) {
    int raw = 0;
    const pid_t ended = waitpid(-group, &raw, 0);
    if (ended < 0 && errno == EINTR) continue;
    if (ended < 0 && !is_there(group)) return;
    if (ended < 0) poll(nullptr, 0, 10);  // somebody else's child, as yet
    if (ended != group) continue;
    const int told = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    on_end(told);
    const std::lock_guard<std::mutex> lock(mutex);
    status = told;
    changed.notify_all();
  }
}

// Whether all of it has ended within the limit.
bool host::wait_gone(std::chrono::milliseconds limit) {
  const moment until = in(limit);
  std::unique_lock<std::mutex> lock(mutex);
  if (!changed.wait_until(lock, until, [this] { return status.has_value(); })) return false;
  lock.unlock();
  while (is_there(group) && std::chrono::steady_clock::now() < until) poll(nullptr, 0, 5);
  return !is_there(group);
}

host::ending host::end() {
  close_input();
  const bool went_with_input = wait_gone(step_limit);
  bool has_gone = went_with_input;
  const std::optional<int> unasked = status_told();
  for (const int signal : {SIGTERM, SIGKILL}) {
    if (has_gone) break;
    kill(-group, signal);
    has_gone = wait_gone(step_limit) && signal != SIGKILL;
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, step_limit, [this] { return unfinished == 0; });
  }
  const std::optional<int> asked = status_told();
  if (unasked && *unasked != 0) return {false, "it ended with " + status_text(*unasked)};
  if (!has_gone) return {false, "it did not end and was killed"};
  if (went_with_input) return {};
  if (unasked) return {true, "what the host had started went on after it, up to SIGTERM"};
  if (*asked == 0 || *asked == 128 + SIGTERM) {
    return {true, "the host went on after the end of its input, up to SIGTERM"};
  }
  return {false, "it ended with " + status_text(*asked) + " when it was asked to"};
}

}  // namespace virtual_reader
