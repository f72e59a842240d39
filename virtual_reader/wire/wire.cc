#include "wire.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace virtual_reader {

namespace {

#ifdef MSG_NOSIGNAL
constexpr int send_flags = MSG_NOSIGNAL;
#else
constexpr int send_flags = 0;  // SO_NOSIGPIPE does it
#endif

// Says why not, if it is asked.
bool receive_bytes(int socket, void* bytes, std::size_t size, moment until, std::string* why) {
  const auto fail = [&](const char* reason) {
    if (why) *why = reason;
    return false;
  };
  const std::size_t whole = size;
  for (char* place = static_cast<char*>(bytes); size > 0;) {
    const ssize_t count = recv(socket, place, size, 0);
    if (count > 0) {
      place += count;
      size -= static_cast<std::size_t>(count);
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
      return fail("it hung up");
    } else if (errno == EAGAIN && !wait_for(socket, POLLIN, until)) {
      return fail(size < whole ? "it fell silent halfway" : "it was silent");
    }
  }
  return true;
}

}  // namespace

void descriptor::reset() {
  if (number >= 0) close(number);
  number = -1;
}

int adopt_socket(int number) {
  const descriptor first(number);
  const int socket = number < 0 ? -1 : fcntl(number, F_DUPFD_CLOEXEC, 3);
  if (socket < 0) return -1;
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
#ifdef SO_NOSIGPIPE
  const int on = 1;
  setsockopt(socket, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
  return socket;
}

int new_socket() { return adopt_socket(::socket(AF_UNIX, SOCK_STREAM, 0)); }

std::optional<sockaddr_un> address_of(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  errno = ENAMETOOLONG;
  if (path.size() >= sizeof address.sun_path) return {};
  path.copy(address.sun_path, path.size());
  return address;
}

int connect_to(const std::string& path) {
  const auto address = address_of(path);
  if (!address) return -1;
  descriptor socket(new_socket());
  if (socket.number < 0) return -1;
  const moment until = in(message_limit);
  const auto* const where = reinterpret_cast<const sockaddr*>(&*address);
  int error = EAGAIN;
  while (error == EAGAIN) {
    if (connect(socket.number, where, sizeof *address) == 0) {
      return std::exchange(socket.number, -1);
    }
    error = errno;
    if (std::chrono::steady_clock::now() >= until) break;
    if (error == EAGAIN) poll(nullptr, 0, 10);
  }
  socket.reset();
  errno = error;
  return -1;
}

bool wait_for(int socket, short events, moment until) {
  for (;;) {
    int limit = -1;
    if (until != never) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      limit = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
    }
    pollfd entry{socket, events, 0};
    const int count = poll(&entry, 1, limit);
    if (count > 0) return true;
    if (count == 0 || errno != EINTR) return false;
  }
}

bool send_bytes(int socket, const void* bytes, std::size_t size, moment until) {
  for (const char* place = static_cast<const char*>(bytes); size > 0;) {
    const ssize_t count = send(socket, place, size, send_flags);
    if (count >= 0) {
      place += count;
      size -= static_cast<std::size_t>(count);
    } else if ((errno != EINTR && errno != EAGAIN) ||
               (errno == EAGAIN && !wait_for(socket, POLLOUT, until))) {
      return false;
    }
  }
  return true;
}

bool send_message(int socket, const std::string& message, moment until) {
  const auto size = static_cast<std::uint32_t>(message.size());
  std::string bytes(reinterpret_cast<const char*>(&size), sizeof size);
  bytes += message;
  return send_bytes(socket, bytes.data(), bytes.size(), until);
}

std::optional<std::string> receive_message(int socket, std::size_t size_limit, moment until,
                                           std::string* why) {
  std::uint32_t size = 0;
  if (!receive_bytes(socket, &size, sizeof size, until, why)) return {};
  if (size > size_limit) {
    if (why) *why = "it sent no message";
    return {};
  }
  std::string message(size, 0);
  if (!receive_bytes(socket, message.data(), size, until, why)) return {};
  return message;
}

std::optional<greeting> exchange_greetings(int socket, const char* role, std::string* why) {
  const moment until = in(message_limit);
  struct {
    char role[4];
    std::uint32_t version;
  } own{{}, protocol_version}, peer{};
  std::copy(role, role + 4, own.role);
  if (!send_bytes(socket, &own, sizeof own, until)) {
    if (why) *why = "it hung up before the greeting";
    return {};
  }
  if (!receive_bytes(socket, &peer, sizeof peer, until, why)) {
    if (why) *why += " instead of a greeting";
    return {};
  }
  const std::string came(peer.role, 4);
  if (came == agent_greeting || came == control_greeting) return greeting{came, peer.version};
  if (why) *why = "its greeting is none of a virtual reader's";
  return {};
}

}  // namespace virtual_reader
