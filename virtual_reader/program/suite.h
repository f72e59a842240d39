// All that one call of the program runs: several scripts, one, or standard input.
#pragma once

#include "options.h"

namespace virtual_reader {

// Checks the scripts, runs each unless they are only to be checked, and reports. Returns the exit
// status: that of the first run that did not pass. Throws std::exception if it cannot start.
int run_suite(const options& options);

}  // namespace virtual_reader
