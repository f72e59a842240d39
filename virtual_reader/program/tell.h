// A virtual reader that runs is told verbs by another process.
#pragma once

#include <functional>
#include <string>

#include "device.h"
#include "session.h"

namespace virtual_reader {

// Has the reader that listens there carry out verbs, one a line, up to the first that goes wrong.
// Prints what they answer, and what was wrong on standard error. Returns the status to end with.
int tell(const std::string& socket_path, const std::string& verbs);

// The other end: serves one who tells. `around` is what a session needs, but for the answers.
void serve_teller(int socket, const std::function<bool()>& is_over, device& reader,
                  std::atomic<std::uint64_t>& cursor, surroundings around);

}  // namespace virtual_reader
