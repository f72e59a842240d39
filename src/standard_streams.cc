#include "standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Sleeps until the descriptor can be used after a call on it failed with `errno` as it stands, or
// returns false at once when waiting would not mend that failure.
bool wait_until_ready(int descriptor, short events) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  pollfd entry{descriptor, events, 0};
  return poll(&entry, 1, -1) > 0 || errno == EINTR;
}

}  // namespace

void occupy_closed_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    // A new descriptor gets the lowest free number; this one is good for nothing else.
    const int useless_for_it = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", useless_for_it);
  }
}

input_status read_input(char* buffer, std::size_t size, std::size_t* length) {
  *length = 0;
  for (;;) {
    const ssize_t count = read(STDIN_FILENO, buffer, size);
    if (count > 0) {
      *length = static_cast<std::size_t>(count);
      return input_status::data;
    }
    if (count == 0) return input_status::end;
    if (!wait_until_ready(STDIN_FILENO, POLLIN)) return input_status::failed;
  }
}

void write_output(const char* bytes, std::size_t size) {
  static bool failed = false;
  while (size > 0 && !failed) {
    const ssize_t count = write(STDOUT_FILENO, bytes, size);
    if (count >= 0) {
      bytes += count;
      size -= static_cast<std::size_t>(count);
    } else {
      failed = !wait_until_ready(STDOUT_FILENO, POLLOUT);
    }
  }
}
