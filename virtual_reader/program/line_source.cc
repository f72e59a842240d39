#include "line_source.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

// Not poll, which doesn't know terminals on every system.
bool first_readable(int first, int second) {
  fd_set set;
  do {
    FD_ZERO(&set);
    for (const int descriptor : {first, second}) {
      if (descriptor >= 0) FD_SET(descriptor, &set);
    }
  } while (select(std::max(first, second) + 1, &set, nullptr, nullptr, nullptr) < 0 &&
           errno == EINTR);
  return FD_ISSET(first, &set);
}

std::optional<std::string> line_source::next() {
  for (;;) {
    const std::size_t line_feed = pending.find('\n');
    if (line_feed != std::string::npos || (ended && !pending.empty())) {
      std::string line = pending.substr(0, line_feed);
      pending.erase(0, line_feed == std::string::npos ? line_feed : line_feed + 1);
      return line;
    }
    if (ended || first_readable(stop, input)) return {};
    char block[65536];
    const ssize_t count = read(input, block, sizeof block);
    if (count > 0) pending.append(block, static_cast<std::size_t>(count));
    ended = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
  }
}
