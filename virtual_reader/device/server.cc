#include "server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "wire.h"

namespace virtual_reader {

namespace {

constexpr std::size_t most_links = 64;

[[noreturn]] void fail(const std::string& path, int error) {
  throw std::runtime_error(path + ": " + std::generic_category().message(error));
}

// Nobody else can be clearing away a stale socket in the folder while one of these exists.
class folder_lock {
 public:
  explicit folder_lock(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    descriptor = open(folder.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) fail(folder, errno);
    const moment until = in(message_limit);
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  ~folder_lock() { close(descriptor); }
  folder_lock(const folder_lock&) = delete;
  folder_lock& operator=(const folder_lock&) = delete;

 private:
  int descriptor;
};

}  // namespace

server::server(std::string socket_path, serve_function serve_link)
    : path(std::move(socket_path)), serve(std::move(serve_link)) {
  try {
    listen_on_path();
    if (pipe(wake) != 0) fail(path, errno);
    for (const int end : wake) fcntl(end, F_SETFD, FD_CLOEXEC);
    acceptor = std::thread([this] { accept_links(); });
  } catch (...) {
    for (const int descriptor : {listener, wake[0], wake[1]}) {
      if (descriptor >= 0) close(descriptor);
    }
    throw;
  }
}

server::~server() {
  while (write(wake[1], "", 1) < 0 && errno == EINTR) {
  }
  acceptor.join();
  end_links(true);
  struct stat now {};
  if (lstat(path.c_str(), &now) == 0 && now.st_dev == device && now.st_ino == inode) {
    unlink(path.c_str());
  }
  for (const int descriptor : {listener, wake[0], wake[1]}) close(descriptor);
}

void server::listen_on_path() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) fail(path, ENAMETOOLONG);
  path.copy(address.sun_path, path.size());

  const folder_lock lock(path);
  struct stat found {};
  if (lstat(path.c_str(), &found) == 0) {
    if (!S_ISSOCK(found.st_mode)) throw std::runtime_error(path + " exists and is no socket");
    const int other = connect_to(path);
    const int error = errno;
    if (other >= 0) close(other);
    if (other >= 0 || error == EAGAIN) {
      throw std::runtime_error("another virtual reader already runs on " + path);
    }
    if (error != ECONNREFUSED) fail(path, error);
    unlink(path.c_str());
  }
  listener = new_socket();
  if (listener < 0 ||
      bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0600) != 0 || lstat(path.c_str(), &found) != 0 ||
      listen(listener, 16) != 0) {
    fail(path, errno);
  }
  device = found.st_dev;
  inode = found.st_ino;
}

void server::accept_links() {
  for (;;) {
    pollfd entries[] = {{wake[0], POLLIN, 0}, {listener, POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) continue;
    if (entries[0].revents != 0) return;
    const int socket = adopt_socket(accept(listener, nullptr, nullptr));
    end_links(false);
    if (socket < 0) continue;
    const std::lock_guard<std::mutex> lock(mutex);
    if (links.size() >= most_links) {
      close(socket);
      continue;
    }
    links.push_back({socket, {}, false});
    link& added = links.back();
    added.thread = std::thread([this, &added] {
      serve(added.socket);
      shutdown(added.socket, SHUT_RDWR);
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
      const auto next = std::next(place);
      if (all) shutdown(place->socket, SHUT_RDWR);
      if (all || place->ended) ended.splice(ended.end(), links, place);
      place = next;
    }
  }
  for (link& one : ended) {
    one.thread.join();
    close(one.socket);
  }
}

}  // namespace virtual_reader
