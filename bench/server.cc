#include "server.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

// The sum of the numbers behind a key in one of the system's "Key: number" files.
long read_key(const std::filesystem::path& file, const std::string& key) {
  std::ifstream lines(file);
  long sum = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(0, key.size(), key) == 0) sum += std::stol(line.substr(key.size()));
  }
  return sum;
}

std::filesystem::directory_iterator threads_of(pid_t process) {
  return std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task");
}

}  // namespace

void fail(const std::string& what) {
  std::fprintf(stderr, "measure: %s\n", what.c_str());
  std::exit(1);
}

server::server(char* const command[], const std::string& first) {
  int to[2];
  int from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) fail("no pipe");
  input = to[1];
  output = from[0];
  if (!first.empty()) send(first.data(), first.size());
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, from[1], STDOUT_FILENO);
  if (posix_spawnp(&process, command[0], &actions, nullptr, command, environ) != 0) {
    fail(std::string("cannot start ") + command[0]);
  }
  posix_spawn_file_actions_destroy(&actions);
  close(to[0]);
  close(from[1]);
}

server::~server() {
  close(input);
  int status = 0;
  waitpid(process, &status, 0);
  close(output);
  if (status != 0) fail("the server did not end well");
}

void server::send(const char* bytes, std::size_t size) const {
  while (size > 0) {
    const ssize_t count = write(input, bytes, size);
    if (count <= 0) fail("the server does not read");
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
}

std::size_t server::receive(char* buffer, std::size_t size) const {
  const ssize_t count = read(output, buffer, size);
  if (count <= 0) fail("the server's output has ended");
  return static_cast<std::size_t>(count);
}

std::string server::receive_lines() const {
  std::string text;
  char buffer[4096];
  do {
    text.append(buffer, receive(buffer, sizeof buffer));
  } while (text.back() != '\n');
  return text;
}

long server::resident() const {
  return read_key("/proc/" + std::to_string(process) + "/smaps_rollup", "Rss:");
}

bool server::has_read_all() const {
  int unread = 0;
  if (ioctl(input, FIONREAD, &unread) != 0) fail("cannot look into the pipe");
  if (unread > 0) return false;
  for (const auto& thread : threads_of(process)) {
    std::ifstream status(thread.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.compare(0, 6, "State:") == 0 && line.find("sleeping") == std::string::npos)
        return false;
    }
  }
  return true;
}

long server::switches() const {
  long sum = 0;
  for (const auto& thread : threads_of(process)) {
    sum += read_key(thread.path() / "status", "voluntary_ctxt_switches:");
    sum += read_key(thread.path() / "status", "nonvoluntary_ctxt_switches:");
  }
  return sum;
}
