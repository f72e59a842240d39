#include "verbs.h"

#include <algorithm>
#include <limits>

namespace virtual_reader {

namespace {

constexpr std::int64_t least_number = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most_number = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t longest_wait = 24 * 60 * 60 * 1000;  // a day, in ms
constexpr std::size_t longest_text = std::size_t{1} << 20;
const std::string usage = "usage";  // for a verb to return when its words are not as they should be

bool parse_number(const word& given, std::int64_t least, std::int64_t most, std::int64_t* number) {
  return !given.quoted && parse_integer(given.text, number) && *number >= least && *number <= most;
}

// Takes KEYWORD NUMBER off this place in the line; false if something else stands there.
bool take_number(const std::vector<word>& given, std::size_t* place, const char* keyword,
                 std::int64_t least, std::int64_t most, std::int64_t* number) {
  if (*place + 1 >= given.size() || given[*place].text != keyword ||
      !parse_number(given[*place + 1], least, most, number)) {
    return false;
  }
  *place += 2;
  return true;
}

std::string unknown_call(const std::string& name, bool that_can_fail) {
  return "'" + name + "' is no call" + (that_can_fail ? " that can fail" : "") + "; there are " +
         call_names(that_can_fail);
}

std::string beeps_text(const device::state& state) {
  return "beeps " + std::to_string(state.short_beeps) + " short, " +
         std::to_string(state.long_beeps) + " long";
}

std::string led_line(const device::state& state) {
  return "led " + (state.plugged ? led_text(state.led) : std::string("dark"));
}

}  // namespace

struct verbs::verb {
  const char* name;
  const char* syntax;
  const char* help;
  std::string (verbs::*run)(const words&);
};

const std::vector<verbs::verb> verbs::all = {
    {"plug", "", "plugs the reader in", &verbs::plain},
    {"unplug", "", "pulls the reader out", &verbs::plain},
    {"replug", "", "pulls it out and plugs it in again at once", &verbs::plain},
    {"part", "none|\"TEXT\"", "its part number, from the next connection on", &verbs::part},
    {"card", "queue HEX[/BITS] ...", "cards, each reported once, in this order", &verbs::card},
    {"card", "hold HEX[/BITS]", "a card reported again and again", &verbs::card},
    {"card", "remove", "takes the held card away", &verbs::card},
    {"card", "raw BITS VALUE ...", "an ID of any numbers, reported once", &verbs::card},
    {"fail", "CALL [error N] [once|times N|from K|always]", "lets calls fail", &verbs::set_rule},
    {"vanish", "CALL", "the reader is pulled out in the middle of the call", &verbs::set_rule},
    {"delay", "CALL MS", "every such call takes that long", &verbs::set_rule},
    {"hang", "CALL", "the next such call returns at `release` only", &verbs::set_rule},
    {"say", "CALL [thread] \"TEXT\" [length N]", "the library talks during the next such call",
     &verbs::set_rule},
    {"release", "", "ends all calls that hang", &verbs::plain},
    {"clear", "", "drops all that fail, vanish, delay, hang and say have set", &verbs::plain},
    {"show", "", "all about the reader", &verbs::plain},
    {"led", "", "what the LED shows", &verbs::plain},
    {"beeps", "", "how often it has beeped", &verbs::plain},
    {"config", "", "its stored configuration", &verbs::plain},
    {"calls", "[N]", "the last N calls, or 20", &verbs::calls},
    {"trace", "on|quiet|off", "prints every call; quiet: not the polls that find no card",
     &verbs::trace},
    {"wait", "MS", "waits", &verbs::wait},
    {"expect", "CALL [N] [within MS]", "waits for N more such calls (1, within 5000 ms)",
     &verbs::expect},
    {"expect", "cards [within MS]", "waits until all queued cards have been fetched",
     &verbs::expect},
    {"help", "", "prints this", &verbs::plain},
    {"quit", "", "ends the virtual reader, which pulls the reader out", &verbs::plain},
};

std::string verbs::run(const std::string& line) {
  words given;
  const std::string error = split_words(line, &given);
  if (!error.empty() || given.empty()) return error;
  std::string right;
  for (const verb& one : all) {
    if (one.name != given[0].text || given[0].quoted) continue;
    if (right.empty()) {
      std::string result = (this->*one.run)(given);
      if (result != usage) return result;
    }
    right += (right.empty() ? "right would be: " : ", or: ") + std::string(one.name) +
             (*one.syntax ? " " : "") + one.syntax;
  }
  return right.empty() ? "unknown verb '" + given[0].text + "'; `help` lists all" : right;
}

std::string verbs::plain(const words& given) {
  if (given.size() != 1) return usage;
  const std::string& name = given[0].text;
  if (name == "unplug" || name == "replug") reader.unplug();
  if (name == "plug" || name == "replug") reader.plug();
  if (name == "release") reader.release();
  if (name == "clear") reader.clear_rules();
  if (name == "show") show();
  if (name == "led") print(led_line(reader.look()));
  if (name == "beeps") print(beeps_text(reader.look()));
  if (name == "config") config();
  if (name == "quit") quit = true;
  if (name == "help") {
    for (const verb& one : all) {
      std::string text = std::string(one.name) + " " + one.syntax;
      text.resize(std::max<std::size_t>(text.size() + 2, 36), ' ');
      print(text + one.help);
    }
  }
  return {};
}

std::string verbs::part(const words& given) {
  if (given.size() != 2) return usage;
  if (given[1].quoted) {
    if (given[1].text.size() > longest_text) return "the text is longer than a million bytes";
    if (given[1].text.find('\0') != std::string::npos) return "a part number can't hold \\x00";
    reader.set_part_number(given[1].text);
  } else if (given[1].text == "none") {
    reader.set_part_number({});
  } else {
    return usage;
  }
  return {};
}

std::string verbs::card(const words& given) {
  const std::string what = given.size() > 1 ? given[1].text : "";
  if (what == "remove" && given.size() == 2) {
    reader.hold_card({});
    return {};
  }
  if (what == "raw" && given.size() >= 4 && given.size() <= 3 + 32) {
    card_id id;
    if (!parse_integer(given[2].text, &id.bits)) return "'" + given[2].text + "' is no number";
    for (std::size_t i = 3; i < given.size(); ++i) {
      if (!parse_integer(given[i].text, &id.values[i - 3])) {
        return "'" + given[i].text + "' is no signed 64-bit number, like 0x3A or -1";
      }
    }
    reader.queue_cards({id});
    return {};
  }
  std::vector<card_id> ids(given.size() < 2 ? 0 : given.size() - 2);
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::string error = parse_card(given[i + 2].text, &ids[i]);
    if (!error.empty() && (what == "queue" || what == "hold")) return error;
  }
  if (what == "queue" && !ids.empty()) {
    reader.queue_cards(ids);
  } else if (what == "hold" && ids.size() == 1) {
    reader.hold_card(ids[0]);
  } else {
    return usage;
  }
  return {};
}

std::string verbs::set_rule(const words& given) {
  const std::string& what = given[0].text;
  if (given.size() < 2) return usage;
  const call_kind* const kind = find_call(given[1].text);
  const bool can_fail = kind && (kind->result == yields::status || kind->result == yields::text);
  if (!kind || (what == "fail" && !can_fail)) return unknown_call(given[1].text, what == "fail");

  rule made{};
  made.call = given[1].text;
  std::size_t place = 2;
  std::int64_t number = 0;
  if (what == "fail") {
    made.what = rule::kind::fail;
    take_number(given, &place, "error", least_number, most_number, &made.error);
    if (take_number(given, &place, "times", 1, most_number, &number)) {
      made.last = static_cast<std::uint64_t>(number);
    } else if (take_number(given, &place, "from", 1, most_number, &number)) {
      made.first = static_cast<std::uint64_t>(number);
      made.last = rule::always;
    } else if (place < given.size() && given[place].text == "always") {
      made.last = rule::always;
      ++place;
    } else if (place < given.size() && given[place].text == "once") {
      ++place;
    }
  } else if (what == "delay") {
    made.what = rule::kind::delay;
    made.last = rule::always;
    if (given.size() < 3 || !parse_number(given[place++], 0, longest_wait, &number)) return usage;
    made.time = std::chrono::milliseconds(number);
  } else if (what == "say") {
    made.what = rule::kind::say;
    made.own_thread = given.size() > 2 && !given[2].quoted && given[2].text == "thread";
    if (made.own_thread) ++place;
    if (place >= given.size() || !given[place].quoted) return usage;
    made.text = given[place++].text;
    if (made.text.size() > longest_text) return "the text is longer than a million bytes";
    const auto size = static_cast<std::int64_t>(made.text.size());
    made.length = size;
    const bool has_length = place < given.size() && given[place].text == "length";
    if (has_length && !take_number(given, &place, "length", std::numeric_limits<int>::min(), size,
                                   &made.length)) {
      return "the length must be a number up to the text's own length, " + std::to_string(size);
    }
  } else {
    made.what = what == "hang" ? rule::kind::hang : rule::kind::vanish;
  }
  if (place != given.size()) return usage;
  reader.add_rule(std::move(made));
  return {};
}

std::string verbs::calls(const words& given) {
  std::int64_t number = 20;
  if (given.size() > 2 || (given.size() == 2 && !parse_number(given[1], 1, most_number, &number))) {
    return usage;
  }
  const std::vector<std::string> log = reader.calls();
  const std::size_t count = std::min(log.size(), static_cast<std::size_t>(number));
  for (std::size_t i = log.size() - count; i < log.size(); ++i) print(log[i]);
  return {};
}

std::string verbs::trace(const words& given) {
  const std::string what = given.size() == 2 ? given[1].text : "";
  if (what != "on" && what != "quiet" && what != "off") return usage;
  reader.trace(what == "on" ? tracing::on : what == "quiet" ? tracing::quiet : tracing::off);
  return {};
}

std::string verbs::wait(const words& given) {
  std::int64_t number = 0;
  if (given.size() != 2 || !parse_number(given[1], 0, longest_wait, &number)) return usage;
  reader.wait(std::chrono::milliseconds(number));
  return {};
}

std::string verbs::expect(const words& given) {
  if (given.size() < 2) return usage;
  const std::string& name = given[1].text;
  const bool cards = name == "cards";
  if (!cards && !find_call(name)) return unknown_call(name, false) + ", and cards";
  std::int64_t number = 1;
  std::int64_t limit = 5000;
  std::size_t place = 2;
  if (!cards && place < given.size() && parse_number(given[place], 1, most_number, &number)) {
    ++place;
  }
  take_number(given, &place, "within", 0, longest_wait, &limit);
  if (place != given.size()) return usage;

  const std::chrono::milliseconds time(limit);
  std::string found;
  if (cards) {
    if (reader.wait_for_cards(time)) return {};
    found = std::to_string(reader.look().queue.size()) + " are still queued";
  } else {
    std::uint64_t& seen = expected[name];
    const std::uint64_t before = seen;
    seen += static_cast<std::uint64_t>(number);
    if (reader.wait_for_call(name, seen, time)) return {};
    seen = reader.call_count(name);
    found = "there were " + std::to_string(seen - before);
  }
  held = false;
  print("FAILED: expected " + std::to_string(number) + " " + name + " within " +
        std::to_string(limit) + " ms, " + found);
  return {};
}

void verbs::show() {
  const device::state state = reader.look();
  print(!state.plugged ? "unplugged" : state.holder >= 0 ? "plugged in, connected" : "plugged in");
  print("part " + (state.part_number ? quoted(*state.part_number) : "none"));
  for (const card_id& id : state.queue) print("card queued " + to_text(id));
  if (state.held) print("card held " + to_text(*state.held));
  print(led_line(state));
  print(beeps_text(state));
  print("rules " + std::to_string(state.rules));
}

void verbs::config() {
  const configuration stored = reader.look().stored;
  for (std::size_t i = 0; i < stored.size(); ++i) {
    std::string line = record_kinds[i].name;
    for (std::size_t j = 0; j < stored[i].size(); ++j) {
      line += std::string(" ") + record_kinds[i].fields[j] + "=" + std::to_string(stored[i][j]);
    }
    print(line);
  }
}

}  // namespace virtual_reader
