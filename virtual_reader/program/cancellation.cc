#include "cancellation.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

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

// By select, since poll refuses terminals on macOS.
bool cancellation::wait_for(int descriptor, direction wanted, moment until) const {
  for (;;) {
    const auto left = until == never ? std::chrono::hours(1)
                                     : std::chrono::ceil<std::chrono::microseconds>(
                                           until - std::chrono::steady_clock::now());
    const auto limit =
        std::clamp<std::chrono::microseconds>(left, std::chrono::seconds(0), std::chrono::hours(1));
    timeval time{};
    time.tv_sec = static_cast<time_t>(limit.count() / 1'000'000);
    time.tv_usec = static_cast<suseconds_t>(limit.count() % 1'000'000);
    fd_set inputs, outputs;
    FD_ZERO(&inputs);
    FD_ZERO(&outputs);
    FD_SET(read_end.number, &inputs);
    if (descriptor >= 0) FD_SET(descriptor, wanted == direction::input ? &inputs : &outputs);
    const int most = std::max(read_end.number, descriptor);
    const int count = select(most + 1, &inputs, &outputs, nullptr, &time);
    if (count < 0 && errno == EINTR) continue;
    if (count == 0 && (until == never || std::chrono::steady_clock::now() < until)) continue;
    return count > 0 && !FD_ISSET(read_end.number, &inputs);
  }
}

bool cancellation::write_all(int descriptor, const std::string& bytes, moment until) const {
  for (std::size_t written = 0; written < bytes.size();) {
    if (!wait_for(descriptor, direction::output, until)) return false;
    const std::size_t size = std::min<std::size_t>(bytes.size() - written, PIPE_BUF);
    const ssize_t count = write(descriptor, bytes.data() + written, size);
    if (count > 0) written += static_cast<std::size_t>(count);
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return false;
  }
  return true;
}

void cancellation::read_lines(int descriptor, std::size_t longest, const text_function& on_line,
                              const text_function& on_bytes) const {
  std::string line, block;
  while (wait_for(descriptor, direction::input)) {
    block.resize(65536);
    const ssize_t count = read(descriptor, block.data(), block.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) break;
    block.resize(static_cast<std::size_t>(count));
    for (std::size_t start = 0, end = 0; end < block.size(); start = end + 1) {
      end = std::min(block.find('\n', start), block.size());
      line.append(block, start, std::min(end - start, longest + 1 - line.size()));
      if (end < block.size()) on_line(std::exchange(line, ""));
    }
    on_bytes(block);
  }
  if (!line.empty()) on_line(line);
}

}  // namespace virtual_reader
