#include "child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

extern char** environ;

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

void close_end(int* end) {
  if (*end >= 0) close(*end);
  *end = -1;
}

// Neither end may leak into another child: it would keep the pipe open.
struct pipe_ends {
  int read_end = -1, write_end = -1;

  pipe_ends() {
    int ends[2];
    if (pipe(ends) != 0) fail(errno, "pipe");
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    read_end = ends[0];
    write_end = ends[1];
  }
  ~pipe_ends() {
    close_end(&read_end);
    close_end(&write_end);
  }
  pipe_ends(const pipe_ends&) = delete;
  pipe_ends& operator=(const pipe_ends&) = delete;
};

std::vector<std::string> merged(const child_process::environment& variables) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (variables.count(text.substr(0, text.find('='))) == 0) entries.push_back(text);
  }
  for (const auto& [name, value] : variables) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

void write_all(int descriptor, const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(descriptor, bytes.data() + sent, bytes.size() - sent);
    if (count < 0 && errno != EINTR) fail(errno, "writing to a child process");
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
}

}  // namespace

std::string exit_status::text() const {
  return (is_signal ? "signal " : "status ") + std::to_string(number);
}

child_process::child_process(const std::vector<std::string>& command, const options& how) {
  signal(SIGPIPE, SIG_IGN);
  pipe_ends in, out;
  if (how.is_non_blocking) {
    fcntl(in.read_end, F_SETFL, O_NONBLOCK);
    fcntl(out.write_end, F_SETFL, O_WRONLY | O_NONBLOCK);
  }
  write_all(in.write_end, how.first_input);

  std::vector<std::string> arguments = command;
  std::vector<std::string> entries = merged(how.variables);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read_end, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.write_end, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  const int group_flag = how.has_own_group ? POSIX_SPAWN_SETPGROUP : 0;
  const int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | group_flag;
  posix_spawnattr_setflags(&attributes, static_cast<short>(flags));
  const int error = posix_spawnp(&child, arguments.front().c_str(), &actions, &attributes,
                                 pointers_to(arguments).data(), pointers_to(entries).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) fail(error, arguments.front());
  std::swap(input, in.write_end);
  std::swap(output, out.read_end);
}

child_process::~child_process() {
  close_input();
  close_output();
  if (is_running) {
    kill(child, SIGKILL);
    wait();
  }
}

void child_process::send(const std::string& bytes) const { write_all(input, bytes); }

std::size_t child_process::receive(char* buffer, std::size_t size) const {
  for (;;) {
    const ssize_t count = read(output, buffer, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) fail(errno, "reading from a child process");
  }
}

void child_process::close_input() { close_end(&input); }

void child_process::close_output() { close_end(&output); }

exit_status child_process::wait() {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) fail(errno, "waiting for a child process");
  }
  is_running = false;
  if (WIFSIGNALED(status)) return {true, WTERMSIG(status)};
  return {false, WEXITSTATUS(status)};
}
