#include "parse_line.h"

#include "feedback.h"
#include "make_action.h"
#include "token_split.h"
#include "white_space.h"

action_ptr parse_line(std::string_view line) {
  line = line.substr(0, line.find('\0'));
  while (!line.empty() && is_white_space(line.back())) line.remove_suffix(1);
  if (line.empty()) return nullptr;

  while (!line.empty() && line.front() == ':') line.remove_prefix(1);
  if (line.empty()) return std::make_unique<print_error>("Command has no reader");
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    return std::make_unique<print_error>("Reader name must be followed by a colon");
  }
  const auto [command, arguments] = token_split(line.substr(colon + 1));
  return make_action(line.substr(0, colon), command, arguments);
}
