#include "guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "wire.h"

namespace virtual_reader {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

void remove_folder(const std::string& folder) {
  unlink((folder + "/reader.sock").c_str());
  rmdir(folder.c_str());
}

void end_group(pid_t group) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    kill(-group, signal);
    for (int i = 0; i < 100 && is_there(group); ++i) poll(nullptr, 0, 20);
  }
}

// Waits for the other end of the pipe to go. Whoever says goodbye with a group of 0 cleans up.
[[noreturn]] void keep_watch(int pipe_end, const std::string& folder) {
  setsid();  // no signal of a terminal's is for it
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) signal(number, SIG_IGN);
  // Whoever waits for the end of what this process was given must not wait for it.
  for (int other = 0; other < 1024; ++other) {
    if (other != pipe_end) close(other);
  }
  pid_t group = -1, told = 0;
  for (ssize_t count; (count = read(pipe_end, &told, sizeof told)) != 0;) {
    if (count == sizeof told) group = told;
    if (count < 0 && errno != EINTR) break;
  }
  if (group > 0) end_group(group);
  if (group != 0) remove_folder(folder);
  _exit(0);
}

}  // namespace

bool is_there(pid_t group) { return kill(-group, 0) == 0 || errno == EPERM; }

std::string make_private_folder() {
  const char* const wanted = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
  const std::string name = "/virtual-reader-XXXXXX";
  std::string folder = (wanted && *wanted ? wanted : "/tmp") + name;
  if (!address_of(folder + "/reader.sock")) folder = "/tmp" + name;
  if (!mkdtemp(folder.data())) fail(folder);
  return folder;
}

guardian::guardian(const std::string& private_folder) : folder(private_folder) {
  int ends[2];
  if (pipe(ends) != 0) fail("pipe");
  child = fork();
  if (child == 0) {
    close(ends[1]);
    keep_watch(ends[0], folder);
  }
  close(ends[0]);
  pipe_end = ends[1];
  fcntl(pipe_end, F_SETFD, FD_CLOEXEC);
  if (child < 0) fail("fork");
}

guardian::~guardian() {
  remove_folder(folder);
  watch(0);
  close(pipe_end);
  waitpid(child, nullptr, 0);
}

void guardian::watch(pid_t group) const {
  if (write(pipe_end, &group, sizeof group) < 0) {
    // It was killed; then there is none.
  }
}

}  // namespace virtual_reader
