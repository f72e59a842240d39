#include "ui.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <climits>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace virtual_reader {

namespace {

std::string own_path() {
  char path[PATH_MAX] = "";
#ifdef __APPLE__
  std::uint32_t size = sizeof path;
  return _NSGetExecutablePath(path, &size) == 0 ? path : "";
#else
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
  return {path, size < 0 ? 0 : static_cast<std::size_t>(size)};
#endif
}

}  // namespace

void start_ui(const std::string& socket_path) {
  std::string own = own_path();
  std::string program = own.substr(0, own.rfind('/') + 1) + "ui/serve";
  // The first of two entries with one name counts.
  std::string socket_entry = "VIRTUAL_READER_SOCKET=" + socket_path;
  std::string own_entry = "VIRTUAL_READER=" + own;
  std::vector<char*> environment = {socket_entry.data(), own_entry.data()};
  for (char** each = environ; *each; ++each) environment.push_back(*each);
  environment.push_back(nullptr);
  char* arguments[] = {program.data(), nullptr};

  // This program's threads block the signals that end it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  pid_t process = 0;
  const int error =
      posix_spawn(&process, program.c_str(), &actions, &attributes, arguments, environment.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error(program + ": " + std::strerror(error));
}

}  // namespace virtual_reader
