#include "server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace virtual_reader {

namespace {

constexpr std::size_t most_links = 256;

// The inode of the socket at the path; 0 if there is nothing. Throws if there is something else.
ino_t socket_at(const std::string& path) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return 0;
  if (!S_ISSOCK(found.st_mode)) throw std::runtime_error(path + " exists and is no socket");
  return found.st_ino;
}

}  // namespace

server::server(const std::string& socket_path, serve_function serve_link)
    : path(socket_path), serve(std::move(serve_link)), listener(new_socket()) {
  if (socket_at(path) != 0) {
    const descriptor other(connect_to(path));
    if (other.number >= 0 || errno == EAGAIN) {
      throw std::runtime_error("another virtual reader already runs on " + path);
    }
  }
  // It gets its name once it listens, so that nobody takes it for one left behind.
  const std::string new_path = path + ".new";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  new_path.copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(new_path.c_str());
  int wake[2];
  errno = ENAMETOOLONG;
  if (new_path.size() >= sizeof address.sun_path ||
      bind(listener.number, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(new_path.c_str(), 0600) != 0 || listen(listener.number, 16) != 0 ||
      (inode = socket_at(new_path)) == 0 || rename(new_path.c_str(), path.c_str()) != 0 ||
      pipe(wake) != 0) {
    throw std::runtime_error(path + ": " + std::generic_category().message(errno));
  }
  for (const int end : wake) fcntl(end, F_SETFD, FD_CLOEXEC);
  wake_out.number = wake[0];
  wake_in.number = wake[1];
  acceptor = std::thread([this] { accept_links(); });
}

server::~server() {
  wake_in.reset();
  acceptor.join();
  end_links(true);
  struct stat found {};
  if (lstat(path.c_str(), &found) == 0 && found.st_ino == inode) unlink(path.c_str());
}

void server::accept_links() {
  pollfd entries[] = {{wake_out.number, POLLIN, 0}, {listener.number, POLLIN, 0}};
  while (poll(entries, 2, -1) < 0 || entries[0].revents == 0) {
    const int socket = adopt_socket(accept(listener.number, nullptr, nullptr));
    end_links(false);
    if (socket < 0) {
      poll(entries, 1, 10);  // no descriptor is left: that may take a while to change
      continue;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    link& added = links.emplace_back(socket);
    if (links.size() > most_links) {
      links.pop_back();
      continue;
    }
    added.thread = std::thread([this, &added] {
      serve(added.socket.number);
      shutdown(added.socket.number, SHUT_RDWR);
      const std::lock_guard<std::mutex> end(mutex);
      added.ended = true;
    });
  }
}

void server::end_links(bool all) {
  std::list<link> ended;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto place = links.begin(); place != links.end();) {
      const auto one = place++;
      if (all) shutdown(one->socket.number, SHUT_RDWR);
      if (all || one->ended) ended.splice(ended.end(), links, one);
    }
  }
  for (link& one : ended) one.thread.join();
}

}  // namespace virtual_reader
