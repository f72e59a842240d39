// A virtual reader that runs is told verbs by another process: this one.
#pragma once

#include <chrono>
#include <string>

namespace virtual_reader {

// Has the reader that listens there carry out verbs, one a line, up to the first that goes wrong.
// Prints what they answer, and what was wrong on standard error. Returns the status to end with.
// Waits as long as the verbs take, unless there is a limit.
int execute(const std::string& socket_path, const std::string& verbs,
            std::chrono::milliseconds limit);

}  // namespace virtual_reader
