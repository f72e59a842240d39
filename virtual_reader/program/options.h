// The command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

struct options {
  int unplugged = 0, stay = 0, keep_going = 0, ui = 0, version = 0, help = 0;
  std::string socket, file, replay, to_scenario;
  double speed = 1;  // of the replay
  std::optional<std::string> execute;
  std::chrono::milliseconds timeout{0};  // none if 0
  std::vector<std::string> command;      // the host's, what stands behind `--`
};

extern const char usage[];

// Nothing if they are wrong; why has been said on standard error then.
std::optional<options> parse_options(int count, char** arguments);

}  // namespace virtual_reader
