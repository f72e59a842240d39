#include "cancellation.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>

namespace virtual_reader {

cancellation::cancellation() {
  int ends[2];
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  read_end.number = ends[0];
  write_end.number = ends[1];
}

void cancellation::cancel() {
  if (write(write_end.number, "", 1) < 0) return;  // cannot fail: nobody fills the pipe
}

bool cancellation::is_cancelled() const {
  pollfd entry{read_end.number, POLLIN, 0};
  return poll(&entry, 1, 0) > 0;
}

bool cancellation::wait_for(int descriptor, short events, moment until) const {
  for (;;) {
    int limit = -1;
    if (until != never) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
      limit = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
    }
    pollfd both[2] = {{descriptor, events, 0}, {read_end.number, POLLIN, 0}};
    const int count = poll(both, 2, limit);
    if (count < 0 && errno == EINTR) continue;
    return count > 0 && both[1].revents == 0;
  }
}

bool cancellation::write_all(int descriptor, const std::string& bytes, moment until) const {
  for (std::size_t written = 0; written < bytes.size();) {
    if (!wait_for(descriptor, POLLOUT, until)) return false;
    const std::size_t size = std::min<std::size_t>(bytes.size() - written, PIPE_BUF);
    const ssize_t count = write(descriptor, bytes.data() + written, size);
    if (count > 0) written += static_cast<std::size_t>(count);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return false;
  }
  return true;
}

}  // namespace virtual_reader
