#include "make_action.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <string>
#include <tuple>

#include "feedback.h"
#include "set_config.h"
#include "token_split.h"

namespace {

action_ptr reject(std::initializer_list<std::string_view> message) {
  std::string text;
  for (const std::string_view part : message) text += part;
  return std::make_unique<print_error>(text);
}

action_ptr make_beep(std::string_view reader, std::string_view arguments) {
  const auto [length, rest] = token_split(arguments);
  const bool is_long = length == "long";
  if (!is_long && length != "short") return reject({"Invalid beep length '", length, "'"});
  const char most = is_long ? '2' : '5';
  const std::string_view count = token_split(rest).first;
  if (count.size() != 1 || count[0] < '1' || count[0] > most) {
    return reject({"Invalid number of beeps: '", count, "'"});
  }
  return std::make_unique<beep>(reader, count[0] - '0', is_long);
}

action_ptr make_set_led(std::string_view reader, std::string_view arguments) {
  const std::string_view color = token_split(arguments).first;
  const bool red = color == "red" || color == "amber";
  const bool green = color == "green" || color == "amber";
  if (!red && !green && color != "off") {
    return reject({"LED color parameter must be one of <red|green|off>"});
  }
  return std::make_unique<set_led_state>(reader, red, green);
}

action_ptr make_clear_led(std::string_view reader, std::string_view) {
  return std::make_unique<clear_led_state>(reader);
}

action_ptr make_reset_config(std::string_view reader, std::string_view) {
  return std::make_unique<reset_config>(reader);
}

// Takes the text up to the first `stop`, after skipping all `skip` at its start. Moves `rest` to
// what begins at that `stop`, or to its end.
std::string_view take_until(std::string_view& rest, std::string_view skip, char stop) {
  for (const char c : skip) {
    while (!rest.empty() && rest.front() == c) rest.remove_prefix(1);
  }
  const std::string_view taken = rest.substr(0, rest.find(stop));
  rest.remove_prefix(taken.size());
  return taken;
}

// Converts a sign and decimal digits at the start of the text; what follows them is ignored.
// Returns false when there is no number, or one that 32 bits can't hold.
bool to_int32(std::string_view text, std::int32_t* value) {
  const std::string digits(text);
  char* end = nullptr;
  const long long number = std::strtoll(digits.c_str(), &end, 10);  // too large: the largest
  if (end == digits.c_str() || number < std::numeric_limits<std::int32_t>::min() ||
      number > std::numeric_limits<std::int32_t>::max()) {
    return false;
  }
  *value = static_cast<std::int32_t>(number);
  return true;
}

// Settings are written type.name=value; surplus '.' and '=' between the pieces are skipped.
action_ptr make_set_config(std::string_view reader, std::string_view arguments) {
  set_config::settings_map settings;
  for (auto [setting, rest] = token_split(arguments); !setting.empty();
       std::tie(setting, rest) = token_split(rest)) {
    std::string_view pieces = setting;
    const std::string_view type = take_until(pieces, ".", '.');
    if (type.empty()) return reject({"Could not get setting type from '", setting, "'"});
    const std::string_view name = take_until(pieces, ".=", '=');
    if (name.empty()) return reject({"Could not get setting name from '", setting, "'"});
    if (pieces.empty()) return reject({"Could not get setting value from '", setting, "'"});
    pieces.remove_prefix(std::min(pieces.find_first_not_of('='), pieces.size()));
    std::int32_t value = 0;
    if (!to_int32(pieces, &value)) {
      return reject({"Could not convert value '", pieces, "' to an integer"});
    }
    settings[std::string(type)][std::string(name)] = value;
  }
  return std::make_unique<set_config>(reader, std::move(settings));
}

struct command_kind {
  std::string_view word;
  action_ptr (*make)(std::string_view reader, std::string_view arguments);
};

// The commands for a reader. The agent itself knows but one, the ping.
constexpr command_kind reader_commands[] = {
    {"Beep", make_beep},
    {"SetLED", make_set_led},
    {"ClearLED", make_clear_led},
    {"ResetConfig", make_reset_config},
    {"ReaderConfig", make_set_config},
};

}  // namespace

action_ptr make_action(std::string_view reader, std::string_view command,
                       std::string_view arguments) {
  if (reader == global_reader) {
    if (command == "Ping") return std::make_unique<pong>(arguments);
  } else {
    for (const command_kind& kind : reader_commands) {
      if (command == kind.word) return kind.make(reader, arguments);
    }
  }
  return reject({"Unknown command '", command, "' for reader '", reader, "'"});
}
