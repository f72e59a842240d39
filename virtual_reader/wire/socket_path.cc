#include "socket_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace virtual_reader {

namespace {

std::string variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): see the header
  return value ? value : "";
}

std::string private_folder() {
  const std::string runtime = variable("XDG_RUNTIME_DIR");
  if (!runtime.empty()) return runtime + "/virtual-reader";
  return "/tmp/virtual-reader-" + std::to_string(geteuid());
}

}  // namespace

std::string default_socket_path() {
  const std::string chosen = variable("VIRTUAL_READER_SOCKET");
  return chosen.empty() ? private_folder() + "/reader.sock" : chosen;
}

bool default_socket_path_is_private() {
  if (!variable("VIRTUAL_READER_SOCKET").empty()) return true;
  struct stat folder {};
  return lstat(private_folder().c_str(), &folder) == 0 && S_ISDIR(folder.st_mode) &&
         folder.st_uid == geteuid() && (folder.st_mode & 077) == 0;
}

void make_default_socket_folder() {
  if (variable("VIRTUAL_READER_SOCKET").empty()) mkdir(private_folder().c_str(), 0700);
}

}  // namespace virtual_reader
