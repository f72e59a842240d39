#include "agent_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

extern char** environ;

namespace {

struct pipe_ends {
  int read_end, write_end;
};

// Neither end may leak into another child: it would keep the pipe open.
pipe_ends make_pipe() {
  int ends[2];
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  return {ends[0], ends[1]};
}

std::vector<std::string> merged_environment(const agent_process::environment& variables) {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    if (variables.count(text.substr(0, text.find('='))) == 0) entries.push_back(text);
  }
  for (const auto& [name, value] : variables) entries.push_back(name + "=" + value);
  return entries;
}

}  // namespace

agent_process::agent_process(const std::string& executable, const environment& variables,
                             bool non_blocking) {
  signal(SIGPIPE, SIG_IGN);
  const pipe_ends in = make_pipe();
  const pipe_ends out = make_pipe();
  if (non_blocking) {
    fcntl(in.read_end, F_SETFL, O_NONBLOCK);
    fcntl(out.write_end, F_SETFL, O_WRONLY | O_NONBLOCK);
  }
  std::vector<std::string> entries = merged_environment(variables);
  std::vector<char*> pointers;
  for (std::string& entry : entries) pointers.push_back(entry.data());
  pointers.push_back(nullptr);

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
  std::string name = executable;
  char* arguments[] = {name.data(), nullptr};
  const int error =
      posix_spawn(&child, executable.c_str(), &actions, &attributes, arguments, pointers.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  close(in.read_end);
  close(out.write_end);
  input = in.write_end;
  output = out.read_end;
  if (error != 0) throw std::system_error(error, std::generic_category(), executable);
}

agent_process::~agent_process() {
  close_input();
  close_output();
  if (child > 0) {
    kill(child, SIGKILL);
    wait();
  }
}

void agent_process::send(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(input, bytes.data() + sent, bytes.size() - sent);
    if (count < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "writing to the agent");
    }
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
}

void agent_process::close_input() {
  if (input >= 0) close(input);
  input = -1;
}

void agent_process::close_output() {
  if (output >= 0) close(output);
  output = -1;
}

std::string agent_process::next_line(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const std::size_t line_feed = pending.find('\n');
    if (line_feed != std::string::npos) {
      std::string line = pending.substr(0, line_feed);
      pending.erase(0, line_feed + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{output, POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) == 0) {
      return "(timeout)";
    }
    char block[65536];
    const ssize_t count = read(output, block, sizeof block);
    if (count <= 0) return "(end)";
    pending.append(block, static_cast<std::size_t>(count));
  }
}

std::string agent_process::next_line_but_cards() {
  for (;;) {
    std::string line = next_line();
    if (line.rfind("Card: ", 0) != 0) return line;
  }
}

std::string agent_process::line_beginning(const std::string& start) {
  for (;;) {
    std::string line = next_line();
    if (line.rfind(start, 0) == 0 || line == "(end)" || line == "(timeout)") return line;
  }
}

std::string agent_process::ask(const std::string& line) {
  send_line(line);
  for (;;) {
    std::string answer = next_line();
    if (answer[0] == 'O' || answer[0] == 'E' || answer[0] == '(') return answer;
  }
}

std::vector<std::string> agent_process::remaining_lines() {
  std::vector<std::string> lines;
  for (;;) {
    std::string line = next_line();
    if (line == "(end)" || line == "(timeout)") {
      if (line == "(timeout)") lines.push_back(line);
      return lines;
    }
    lines.push_back(std::move(line));
  }
}

int agent_process::finish() {
  close_input();
  remaining_lines();
  return wait();
}

int agent_process::wait() {
  int status = 0;
  if (child > 0) waitpid(child, &status, 0);
  child = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
