// One run: a reader, a script or standard input, and the command under test.
#pragma once

#include <ostream>
#include <vector>

#include "options.h"
#include "recording.h"
#include "run_end.h"
#include "script.h"

namespace virtual_reader {

// The chosen path or the default one, whose folder is made if that is wanted. Throws
// std::runtime_error with one line.
std::string choose_socket_path(const options& options, bool should_make_folder);

struct run_parts {
  script* played;                               // null: standard input
  const std::vector<recorded_call>& recording;  // empty: none
  std::ostream* events;                         // null: nowhere
};

// Runs it from its start to its end; nothing is left of it then. Signals must be blocked. Throws
// std::exception if it cannot start.
verdict run(const options& options, const run_parts& parts);

}  // namespace virtual_reader
