// A run of the virtual reader, from its start to the status it ends with.
#pragma once

#include "options.h"

namespace virtual_reader {

// The given path or the default one, whose folder is there then if it is to be made. Throws
// std::runtime_error with one line.
std::string chosen_socket_path(const options& chosen, bool makes_folder);

// Does all but `--execute`. Does not return but before anything has started: the process ends.
int run(const options& chosen);

}  // namespace virtual_reader
