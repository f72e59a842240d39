#include "listener.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace virtual_reader {

namespace {

// All zero if there is nothing.
struct stat what_is_at(const std::string& path) {
  struct stat found {};
  lstat(path.c_str(), &found);
  return found;
}

}  // namespace

listener::listener(const std::string& socket_path) : path(socket_path), socket(new_socket()) {
  // Locked while this looks and acts, so that of two that start at once one finds the other.
  const std::string folder_path = path.substr(0, path.rfind('/') + 1) + ".";
  const descriptor folder(open(folder_path.c_str(), O_RDONLY | O_CLOEXEC));
  const moment until = in(message_limit);
  while (flock(folder.number, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    if (std::chrono::steady_clock::now() >= until) {
      throw std::runtime_error(folder_path + " is locked by another process");
    }
    poll(nullptr, 0, 10);
  }
  const mode_t mode = what_is_at(path).st_mode;
  if (mode != 0 && !S_ISSOCK(mode)) throw std::runtime_error(path + " exists and is no socket");
  if (descriptor(connect_to(path)).number >= 0 || errno == EAGAIN) {
    throw std::runtime_error("another virtual reader already runs on " + path);
  }
  unlink(path.c_str());
  const auto address = address_of(path);
  if (!address ||
      bind(socket.number, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(socket.number, SOMAXCONN) != 0) {
    throw std::runtime_error(path + ": " + std::generic_category().message(errno));
  }
  inode = what_is_at(path).st_ino;
}

listener::~listener() {
  if (what_is_at(path).st_ino == inode) unlink(path.c_str());
}

int listener::accept() {
  if (!wait_for(socket.number, POLLIN, in(std::chrono::seconds(1)))) return -1;
  const int accepted = adopt_socket(::accept(socket.number, nullptr, nullptr));
  if (accepted < 0) poll(nullptr, 0, 10);  // no descriptor is left: that may take a while to change
  return accepted;
}

void listener::interrupt() const { descriptor(connect_to(path)).reset(); }

}  // namespace virtual_reader
