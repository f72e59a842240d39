#include "wire.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

void append_size(std::string* bytes, std::size_t size) {
  const auto number = static_cast<std::uint32_t>(size);
  bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

// Takes `size` bytes off the front of what is left; false when there are fewer.
bool take(const char*& place, std::size_t& left, void* out, std::size_t size) {
  if (left < size) return false;
  if (size > 0) std::memcpy(out, place, size);
  place += size;
  left -= size;
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
  const moment until = in(greeting_limit);
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

// The size of what follows, the count of numbers, the numbers, then each text after its size; all
// in this machine's own byte order.
bool send_message(int socket, const message& message, moment until) {
  std::string bytes;
  append_size(&bytes, message.numbers.size());
  bytes.append(reinterpret_cast<const char*>(message.numbers.data()),
               message.numbers.size() * sizeof(std::int64_t));
  for (const std::string& text : message.texts) {
    append_size(&bytes, text.size());
    bytes += text;
  }
  std::string head;
  append_size(&head, bytes.size());
  bytes.insert(0, head);
  return send_bytes(socket, bytes.data(), bytes.size(), until);
}

std::optional<message> receive_message(int socket, std::size_t size_limit, moment until,
                                       std::string* why) {
  std::uint32_t size = 0;
  if (!receive_bytes(socket, &size, sizeof size, until, why)) return {};
  if (why) *why = "it sent no message";
  if (size > size_limit) return {};
  std::vector<char> bytes(size);
  if (!receive_bytes(socket, bytes.data(), size, until, why)) return {};

  const char* place = bytes.data();
  std::size_t left = size;
  std::uint32_t count = 0;
  if (!take(place, left, &count, sizeof count) || count > left / sizeof(std::int64_t)) return {};
  message message;
  message.numbers.resize(count);
  take(place, left, message.numbers.data(), count * sizeof(std::int64_t));
  while (left > 0) {
    if (!take(place, left, &count, sizeof count) || count > left) return {};
    message.texts.emplace_back(place, count);
    place += count;
    left -= count;
  }
  return message;
}

std::optional<greeting> exchange_greetings(int socket, const char* role, std::string* why) {
  const moment until = in(greeting_limit);
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
