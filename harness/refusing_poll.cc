// A `poll` that refuses every descriptor at once, as macOS's does terminals.
// Or the C library's headers define a checked `poll` of their own.
#undef _FORTIFY_SOURCE
#include <poll.h>

extern "C" int poll(pollfd* entries, nfds_t count, int) {
  for (nfds_t i = 0; i < count; ++i) entries[i].revents = POLLNVAL;
  return static_cast<int>(count);
}
