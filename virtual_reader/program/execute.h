// Runs verbs on a virtual reader that is already running, in another process.
#pragma once

#include <chrono>
#include <string>

namespace virtual_reader {

// Has the reader that listens there run the verbs, one a line, up to the first that goes wrong.
// Prints what they answer, and what was wrong on standard error. Returns 0; 1 if a verb went wrong;
// or 4 if the limit ran out. Without one (0) it waits as long as the verbs take. Throws
// std::runtime_error with one line if it cannot reach the reader, or cannot print.
int execute(const std::string& socket_path, const std::string& verbs,
            std::chrono::milliseconds limit);

}  // namespace virtual_reader
