#include "child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

extern char** environ;

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

struct pipe_ends {
  int read_end, write_end;
};

// Neither end may leak into another child: it would keep the pipe open.
pipe_ends make_pipe() {
  int ends[2];
  if (pipe(ends) != 0) fail(errno, "pipe");
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  return {ends[0], ends[1]};
}

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

}  // namespace

child_process::child_process(const std::vector<std::string>& command, const options& how) {
  signal(SIGPIPE, SIG_IGN);
  const pipe_ends in = make_pipe();
  const pipe_ends out = make_pipe();
  input = in.write_end;
  output = out.read_end;
  if (how.non_blocking) {
    fcntl(in.read_end, F_SETFL, O_NONBLOCK);
    fcntl(out.write_end, F_SETFL, O_WRONLY | O_NONBLOCK);
  }
  send(how.first);

  std::vector<std::string> arguments = command;
  std::vector<std::string> entries = merged(how.variables);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read_end, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.write_end, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error = posix_spawnp(&child, arguments.front().c_str(), &actions, &attributes,
                                 pointers_to(arguments).data(), pointers_to(entries).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(in.read_end);
  close(out.write_end);
  if (error != 0) fail(error, arguments.front());
}

child_process::~child_process() {
  close_input();
  close_output();
  if (child > 0) {
    kill(child, SIGKILL);
    wait();
  }
}

void child_process::send(const std::string& bytes) const {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(input, bytes.data() + sent, bytes.size() - sent);
    if (count < 0 && errno != EINTR) fail(errno, "writing to a child process");
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
}

std::size_t child_process::receive(char* buffer, std::size_t size) const {
  for (;;) {
    const ssize_t count = read(output, buffer, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) fail(errno, "reading from a child process");
  }
}

void child_process::close_input() {
  if (input >= 0) close(input);
  input = -1;
}

void child_process::close_output() {
  if (output >= 0) close(output);
  output = -1;
}

int child_process::wait() {
  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  child = -1;
  if (ended < 0) fail(errno, "waiting for a child process");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
