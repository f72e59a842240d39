#include "standard_streams.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Where the agent's output goes. Set before there is another thread, then the writer thread's.
int output = STDOUT_FILENO;

enum class direction { in, out };

// Sleeps until the descriptor can be used after a call on it failed with `errno` as it stands, or
// returns false at once when waiting would not mend that failure. Not with `poll`, which refuses
// terminals on macOS.
bool wait_until_ready(int descriptor, direction way) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(descriptor, &set);
  fd_set* const reading = way == direction::in ? &set : nullptr;
  fd_set* const writing = way == direction::out ? &set : nullptr;
  return select(descriptor + 1, reading, writing, nullptr, nullptr) > 0 || errno == EINTR;
}

}  // namespace

void arrange_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    // A new descriptor gets the lowest free number.
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
  const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (own < 0) return;
  if (own >= FD_SETSIZE) {  // more than `select` can wait for
    close(own);
    return;
  }
  output = own;
  dup2(STDERR_FILENO, STDOUT_FILENO);
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
    if (!wait_until_ready(STDIN_FILENO, direction::in)) return input_status::failed;
  }
}

void write_output(const char* bytes, std::size_t size) {
  static bool failed = false;
  while (size > 0 && !failed) {
    const ssize_t count = write(output, bytes, size);
    if (count >= 0) {
      bytes += count;
      size -= static_cast<std::size_t>(count);
    } else {
      failed = !wait_until_ready(output, direction::out);
    }
  }
}
