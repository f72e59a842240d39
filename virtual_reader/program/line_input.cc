#include "line_input.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace virtual_reader {

std::optional<std::string> line_input::next_line() {
  std::string line;
  for (bool has_begun = false;;) {
    if (used == block.size()) {
      if (!ending.wait_for(STDIN_FILENO, cancellation::direction::input)) return {};
      block.resize(65536);
      used = 0;
      const ssize_t count = read(STDIN_FILENO, block.data(), block.size());
      const bool should_retry = count < 0 && (errno == EINTR || errno == EAGAIN);
      block.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
      if (should_retry) continue;
      if (count <= 0) return has_begun ? std::optional(line) : std::nullopt;
    }
    has_begun = true;
    const std::size_t end = std::min(block.find('\n', used), block.size());
    line.append(block, used, std::min(end - used, longest + 1 - line.size()));
    used = end;
    if (end == block.size()) continue;
    ++used;
    return line;
  }
}

}  // namespace virtual_reader
