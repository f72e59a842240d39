#include "verbs.h"

#include <algorithm>
#include <limits>
#include <thread>
#include <utility>

namespace virtual_reader {

namespace {

using kind = rule::kind;
using std::chrono::milliseconds;

constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t longest_wait = 24 * 60 * 60 * 1000;  // a day, in ms
constexpr std::size_t longest_text = 1'000'000;

std::string take_call(words& given) {
  const std::string name = given.take();
  if (!is_call(name)) throw bad_line("'" + name + "' is no call; there are " + call_names);
  return name;
}

std::string take_text(words& given) {
  std::string text = given.take_quoted();
  if (text.size() > longest_text) throw bad_line("the text is longer than a million bytes");
  return text;
}

card_id take_card(words& given) {
  card_id id;
  const std::string error = parse_card(given.take(), &id);
  if (!error.empty()) throw bad_line(error);
  return id;
}

// Takes what may end an `expect`.
milliseconds take_limit(words& given) {
  const milliseconds limit(given.take_if("within") ? given.take_number(0, longest_wait) : 5000);
  given.take_end();
  return limit;
}

std::string led_line(const device::state& state) {
  return "led " + (state.plugged ? to_text(state.led) : std::string("dark"));
}

std::string beeps_line(const device::state& state) {
  return "beeps " + std::to_string(state.short_beeps) + " short, " +
         std::to_string(state.long_beeps) + " long";
}

}  // namespace

struct verbs::verb {
  const char* name;    // one or two words
  const char* syntax;  // of what follows them; nothing: then nothing may follow
  const char* help;
  void (*run)(verbs& self, words& given);
};

const verbs::verb verbs::all[] = {
    {"plug", "", "plugs the reader in", [](verbs& v, words&) { v.reader.plug(); }},
    {"unplug", "", "pulls the reader out", [](verbs& v, words&) { v.reader.unplug(); }},
    {"replug", "", "pulls it out and plugs it in at once",
     [](verbs& v, words&) { v.reader.unplug(), v.reader.plug(); }},
    {"part", "none|\"TEXT\"", "its part number, from the next connection on",
     [](verbs& v, words& w) { v.part(w); }},
    {"card queue", "HEX[/BITS] ...", "cards that are reported once each, in order",
     [](verbs& v, words& w) { v.card(w, true); }},
    {"card hold", "HEX[/BITS]", "a card that is reported again and again",
     [](verbs& v, words& w) { v.card(w, false); }},
    {"card raw", "BITS VALUE ...", "an ID of up to 32 numbers of any size, reported once",
     [](verbs& v, words& w) { v.raw_card(w); }},
    {"card remove", "", "takes the held card away",
     [](verbs& v, words&) { v.reader.change([](device::state& s) { s.held.reset(); }); }},
    {"fail", "CALL [error N] [WHEN]", "lets calls fail",
     [](verbs& v, words& w) { v.add_rule(kind::fail, w); }},
    {"vanish", "CALL [WHEN]", "pulls the reader out in the middle of a call",
     [](verbs& v, words& w) { v.add_rule(kind::vanish, w); }},
    {"delay", "CALL MS [WHEN]", "lets calls take that long, always if not told otherwise",
     [](verbs& v, words& w) { v.add_rule(kind::delay, w); }},
    {"hang", "CALL [WHEN]", "lets a call not return until `release`",
     [](verbs& v, words& w) { v.add_rule(kind::hang, w); }},
    {"say", "CALL [thread] \"TEXT\" [length N] [WHEN]", "lets the library talk during a call",
     [](verbs& v, words& w) { v.add_rule(kind::say, w); }},
    {"release", "", "ends the calls that hang", [](verbs& v, words&) { v.reader.release(); }},
    {"clear", "", "drops what fail, vanish, delay, hang and say have set",
     [](verbs& v, words&) { v.reader.clear_rules(); }},
    {"show", "", "all about the reader", [](verbs& v, words&) { v.show(); }},
    {"led", "", "what the LED shows",
     [](verbs& v, words&) { v.print(led_line(v.reader.look())); }},
    {"beeps", "", "how often it has beeped",
     [](verbs& v, words&) { v.print(beeps_line(v.reader.look())); }},
    {"config", "", "the configuration that it has stored",
     [](verbs& v, words&) {
       for (const std::string& line : to_text(v.reader.look().stored)) v.print(line);
     }},
    {"calls", "[N]", "the last N library calls, or 20", [](verbs& v, words& w) { v.calls(w); }},
    {"trace", "on|quiet|off", "prints each call; quiet: but the polls that find no card",
     [](verbs& v, words& w) { v.trace(w); }},
    {"wait", "MS", "waits",
     [](verbs&, words& w) {
       const milliseconds time(w.take_number(0, longest_wait));
       w.take_end();
       std::this_thread::sleep_for(time);
     }},
    {"expect", "CALL [N] [within MS]", "waits for N more such calls; 1, within 5000 ms",
     [](verbs& v, words& w) { v.expect(w); }},
    {"expect cards", "[within MS]", "waits until all queued cards have been fetched",
     [](verbs& v, words& w) { v.expect_cards(w); }},
    {"host", "\"COMMAND\" [\"ANSWER\"]", "asks whoever plays the host to send it to the reader",
     [](verbs& v, words& w) {
       const std::string command = w.take_quoted();
       const std::string answer = w.at_end() ? "" : " -> " + w.take_quoted();
       w.take_end();
       const std::string line = "host " + command + answer;
       if (line.find('\n') != std::string::npos) {
         throw bad_line("a command is one line, and so is its answer: no \\n");
       }
       v.print(line);
     }},
    {"help", "", "prints this", [](verbs& v, words&) { v.help(); }},
    {"quit", "", "ends the virtual reader", [](verbs& v, words&) { v.quit = true; }},
};

std::string verbs::run(const std::string& line) {
  std::string right;
  try {
    words given(line);
    if (given.at_end()) return {};
    std::string name = given.take();
    if (name == "card" && !given.at_end()) name += " " + given.take();
    if (name == "expect" && given.take_if("cards")) name += " cards";
    for (const verb& one : all) {
      if (one.name != name) continue;
      right = "right would be: " + name + (*one.syntax ? " " : "") + one.syntax;
      if (!*one.syntax) given.take_end();
      one.run(*this, given);
      return {};
    }
    return "unknown verb '" + name + "'; `help` lists all";
  } catch (const bad_line& error) {
    const std::string what = error.what();
    return what + (what.empty() || right.empty() ? "" : "; ") + right;
  }
}

void verbs::card(words& given, bool queued) {
  std::vector<card_id> ids;
  do {
    ids.push_back(take_card(given));
  } while (queued && !given.at_end());
  given.take_end();
  reader.change([&](device::state& state) {
    if (queued) {
      state.queue.insert(state.queue.end(), ids.begin(), ids.end());
    } else {
      state.held = ids[0];
    }
  });
}

void verbs::raw_card(words& given) {
  card_id id;
  id.bits = given.take_number(least, most);
  std::size_t count = 0;
  do {
    id.values[count++] = given.take_number(least, most);
  } while (!given.at_end() && count < id.values.size());
  given.take_end();
  reader.change([&](device::state& state) { state.queue.push_back(id); });
}

void verbs::part(words& given) {
  std::optional<std::string> text;
  if (!given.take_if("none")) text = take_text(given);
  if (text && text->find('\0') != std::string::npos) throw bad_line("no part number has a \\x00");
  given.take_end();
  reader.change([&](device::state& state) { state.part_number = text; });
}

void verbs::add_rule(kind what, words& given) {
  rule made;
  made.what = what;
  made.call = take_call(given);
  bool always = what == kind::delay;
  if (what == kind::fail && given.take_if("error")) made.error = given.take_number(least, most);
  if (what == kind::delay) made.time = milliseconds(given.take_number(0, longest_wait));
  if (what == kind::say) {
    made.own_thread = given.take_if("thread");
    made.text = take_text(given);
    made.length = static_cast<std::int64_t>(made.text.size());
    if (given.take_if("length")) {
      made.length = given.take_number(std::numeric_limits<int>::min(), made.length);
    }
  }
  if (given.take_if("times")) {
    made.last = static_cast<std::uint64_t>(given.take_number(1, most));
    always = false;
  } else if (given.take_if("at")) {
    made.first = made.last = static_cast<std::uint64_t>(given.take_number(1, most));
    always = false;
  } else if (given.take_if("from")) {
    made.first = static_cast<std::uint64_t>(given.take_number(1, most));
    always = true;
  } else if (given.take_if("always")) {
    always = true;
  } else if (given.take_if("once")) {
    always = false;
  }
  if (always) made.last = std::numeric_limits<std::uint64_t>::max();
  given.take_end();
  reader.add_rule(std::move(made));
}

void verbs::trace(words& given) {
  tracing mode = tracing::off;
  if (given.take_if("on")) {
    mode = tracing::on;
  } else if (given.take_if("quiet")) {
    mode = tracing::quiet;
  } else if (!given.take_if("off")) {
    throw bad_line("");
  }
  given.take_end();
  reader.change([&](device::state& state) { state.traced = mode; });
}

void verbs::expect(words& given) {
  const std::string name = take_call(given);
  const std::int64_t number = given.number_is_next() ? given.take_number(1, most) : 1;
  const milliseconds limit = take_limit(given);
  std::uint64_t& seen = expected[name];
  const std::uint64_t before = std::exchange(seen, seen + static_cast<std::uint64_t>(number));
  if (reader.wait_for_call(name, seen, limit)) return;
  seen = reader.call_count(name);
  fail("expected " + std::to_string(number) + " " + name + ", there were " +
       std::to_string(seen - before));
}

void verbs::expect_cards(words& given) {
  if (reader.wait_for_cards(take_limit(given))) return;
  fail("expected all cards to be fetched, " + std::to_string(reader.look().queue.size()) +
       " are not");
}

void verbs::fail(const std::string& why) {
  held = false;
  print("FAILED: " + why);
}

void verbs::calls(words& given) {
  const std::int64_t wanted = given.at_end() ? 20 : given.take_number(1, most);
  given.take_end();
  const std::vector<std::string> log = reader.calls();
  const std::size_t count = std::min(log.size(), static_cast<std::size_t>(wanted));
  std::for_each(log.end() - static_cast<std::ptrdiff_t>(count), log.end(), print);
}

void verbs::show() {
  const device::state state = reader.look();
  print(!state.plugged ? "unplugged" : state.holder >= 0 ? "plugged in, connected" : "plugged in");
  print("part " + (state.part_number ? quoted(*state.part_number) : "none"));
  for (const card_id& id : state.queue) print("card queued " + to_text(id));
  if (state.held) print("card held " + to_text(*state.held));
  print(led_line(state));
  print(beeps_line(state));
  print("rules " + std::to_string(state.rules));
}

void verbs::help() {
  for (const verb& one : all) {
    std::string text = std::string(one.name) + " " + one.syntax;
    text.resize(std::max<std::size_t>(text.size() + 2, 34), ' ');
    print(text + one.help);
  }
  print("WHEN is once, which is meant if it is missing; times N; at K, from K: at the K-th call");
  print("from now, or from it on; always. '#' begins a comment. CALL is one of " + call_names);
}

}  // namespace virtual_reader
