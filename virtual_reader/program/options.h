// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

struct options {
  int should_check = 0, is_unplugged = 0, should_stay = 0, should_keep_going = 0, has_ui = 0,
      is_lenient = 0, wants_version = 0, wants_help = 0;
  std::string socket, replay, to_scenario, events, junit;  // paths; empty if not given
  std::optional<std::string> execute;                      // verbs, one a line
  std::chrono::milliseconds timeout{0};                    // none if 0
  std::vector<std::string> scripts;
  std::vector<std::string> command;  // what stands behind `--`
};

extern const char usage[];

// Throws std::runtime_error with one line that says what is wrong.
options parse_options(int count, char** arguments);

}  // namespace virtual_reader
