#include "verbs.h"

#include <algorithm>
#include <limits>
#include <thread>
#include <utility>

#include "words.h"

namespace virtual_reader {

namespace {

using state = device::state;
using std::chrono::milliseconds;

constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr milliseconds longest_wait = std::chrono::hours(24);

std::uint64_t take_count(words& given) {
  return static_cast<std::uint64_t>(given.take_number(1, most));
}

milliseconds take_time(words& given) {
  return milliseconds(given.take_number(0, longest_wait.count()));
}

// Takes what may end an `expect`.
milliseconds take_limit(words& given) {
  const milliseconds limit = given.take_if("within") ? take_time(given) : milliseconds(5000);
  given.take_end();
  return limit;
}

// Sets a rule for the calls that the WHEN says which is next.
void set_rule(state& s, words& given, rule made, const char* usual_when = "once") {
  const std::string when = given.at_end() ? usual_when : given.take();
  const bool is_counted = when == "times" || when == "at" || when == "from";
  if (!is_counted && when != "once" && when != "always") throw bad_line("");
  const std::uint64_t number = is_counted ? take_count(given) : 1;
  made.first = when == "times" ? 1 : number;
  made.last = when == "from" || when == "always" ? most : number;
  s.faults.push_back(std::move(made));
}

}  // namespace

struct verbs::verb {
  std::string name;    // one or two words
  std::string syntax;  // of what follows them
  std::string help;
  // One of both is there. `change` may be called for a state of no reader, to see whether the line
  // is right; `act` takes the end of the line itself if the verb has a syntax.
  void (*change)(state&, words& given);
  void (*act)(verbs&, words& given) = nullptr;
};

const std::vector<verbs::verb> verbs::all = {
    {"plug", "", "plugs the reader in", [](state& s, words&) { s.power(true, "plugged in"); }},
    {"unplug", "", "pulls the reader out", [](state& s, words&) { s.power(false, "unplugged"); }},
    {"replug", "", "pulls it out and plugs it in at once",
     [](state& s, words&) { s.power(false, "unplugged"), s.power(true, "plugged in"); }},
    {"part", "none|\"TEXT\"", "its part number, from the next connection on",
     [](state& s, words& w) {
       s.part_number.reset();
       if (!w.take_if("none")) s.part_number = w.take_quoted();
     }},
    {"card queue", "HEX[/BITS] ...", "cards that are reported once each, in order",
     [](state& s, words& w) {
       do {
         s.queue.push_back(w.take_card());
       } while (!w.at_end());
     }},
    {"card hold", "HEX[/BITS]", "a card that is reported again and again",
     [](state& s, words& w) { s.held = w.take_card(); }},
    {"card raw", "BITS VALUE ...", "an ID of up to 32 numbers of any size, reported once",
     [](state& s, words& w) {
       card_id id;
       id.values.back() = w.take_number(least, most);
       id.text = "raw " + std::to_string(id.values.back());
       std::size_t count = 0;
       do {
         id.values[count] = w.take_number(least, most);
         id.text += " " + std::to_string(id.values[count]);
       } while (!w.at_end() && ++count < 32);
       s.queue.push_back(id);
     }},
    {"card remove", "", "takes the held card away", [](state& s, words&) { s.held.reset(); }},
    {"fail", "CALL [error N] [WHEN]", "lets calls fail",
     [](state& s, words& w) {
       rule made{rule::kind::fail, w.take_call()};
       if (w.take_if("error")) made.error = w.take_number(least, most);
       set_rule(s, w, made);
     }},
    {"vanish", "CALL [WHEN]", "pulls the reader out in the middle of a call",
     [](state& s, words& w) {
       set_rule(s, w, {rule::kind::vanish, w.take_call()});
     }},
    {"delay", "CALL MS [WHEN]", "lets calls take that long, always if not told otherwise",
     [](state& s, words& w) {
       rule made{rule::kind::delay, w.take_call()};
       made.time = take_time(w);
       set_rule(s, w, made, "always");
     }},
    {"hang", "CALL [WHEN]", "lets a call not return until `release`, or for a day",
     [](state& s, words& w) {
       rule made{rule::kind::delay, w.take_call()};
       made.time = longest_wait;
       set_rule(s, w, made);
     }},
    {"say", "CALL [thread] \"TEXT\" [length N] [WHEN]", "lets the library talk during a call",
     [](state& s, words& w) {
       rule made{rule::kind::say, w.take_call()};
       made.own_thread = w.take_if("thread");
       made.text = w.take_quoted();
       made.length = static_cast<int>(made.text.size());
       constexpr int shortest = std::numeric_limits<int>::min();
       if (w.take_if("length")) made.length = w.take_number(shortest, made.length);
       set_rule(s, w, made);
     }},
    {"release", "", "ends the calls that hang or are delayed",
     [](state& s, words&) { ++s.releases; }},
    {"clear", "", "drops what fail, vanish, delay, hang and say have set",
     [](state& s, words&) { s.faults.clear(); }},
    {"trace", "on|quiet|off", "prints each call; quiet: but the polls that find no card",
     [](state& s, words& w) {
       const bool on = w.take_if("on"), quiet = !on && w.take_if("quiet");
       if (!on && !quiet && !w.take_if("off")) throw bad_line("");
       s.traced = on ? tracing::on : quiet ? tracing::quiet : tracing::off;
     }},
    {"show", "", "all about the reader", nullptr, [](verbs& v, words&) { v.show(""); }},
    {"led", "", "what the LED shows", nullptr, [](verbs& v, words&) { v.show("led "); }},
    {"beeps", "", "how often it has beeped", nullptr, [](verbs& v, words&) { v.show("beeps "); }},
    {"config", "", "the configuration that it has stored", nullptr,
     [](verbs& v, words&) {
       for (const std::string& line : to_text(v.reader.look().stored)) v.print(line);
     }},
    {"calls", "[N]", "the last N library calls, or 20", nullptr,
     [](verbs& v, words& w) {
       const std::uint64_t wanted = w.at_end() ? 20 : take_count(w);
       w.take_end();
       const std::vector<std::string> log = v.reader.calls();
       std::for_each(log.size() > wanted ? log.end() - static_cast<int>(wanted) : log.begin(),
                     log.end(), v.print);
     }},
    {"wait", "MS", "waits", nullptr,
     [](verbs& v, words& w) {
       const milliseconds time = take_time(w);
       w.take_end();
       std::this_thread::sleep_for(time);
       v.waited |= time.count() > 0;
     }},
    {"expect", "CALL [N] [within MS]", "waits for N more such calls; 1, within 5000 ms", nullptr,
     [](verbs& v, words& w) {
       const std::string name = w.take_call();
       const std::uint64_t number = w.at_end() || w.is_next("within") ? 1 : take_count(w);
       const milliseconds limit = take_limit(w);
       std::uint64_t& seen = v.expected[name];
       const std::uint64_t before = std::exchange(seen, seen + number);
       const bool came = v.reader.wait_for_call(name, seen, limit);
       if (!came) seen = v.reader.call_count(name);
       v.expect(came, std::to_string(number) + " " + name + ", there were " +
                          std::to_string(seen - before));
     }},
    {"expect cards", "[within MS]", "waits until all queued cards have been fetched", nullptr,
     [](verbs& v, words& w) {
       const bool came = v.reader.wait(take_limit(w), [](state& s) { return s.queue.empty(); });
       const std::size_t left = v.reader.look().queue.size();
       v.expect(came, "all cards to be fetched, " + std::to_string(left) + " are not");
     }},
    {"host", "\"COMMAND\" [\"ANSWER\"]", "asks whoever plays the host to send it to the reader",
     nullptr,
     [](verbs& v, words& w) {
       std::string line = "host " + w.take_quoted();
       if (!w.at_end()) line += " -> " + w.take_quoted();
       w.take_end();
       const bool is_line = line.find('\n') == std::string::npos;
       if (!is_line) throw bad_line("a command is one line, and so is its answer");
       v.print(line);
     }},
    {"again", "", "begins the file anew, if there was a `wait`", nullptr,
     [](verbs& v, words&) {
       if (!v.waited) throw bad_line("without a `wait` before it, this would never rest");
       if (!v.start_again || !v.start_again()) throw bad_line("only a file can begin anew");
       v.waited = false;
     }},
    {"help", "", "prints this", nullptr,
     [](verbs& v, words&) {
       for (const verb& one : all) {
         std::string text = one.name + " " + one.syntax;
         text.resize(std::max<std::size_t>(text.size() + 2, 34), ' ');
         v.print(text + one.help);
       }
       v.print(
           "WHEN is once, which is usual; times N; at K, from K: at the K-th call from now, or");
       v.print("from it on; always. '#' begins a comment. CALL is one of " + call_names);
     }},
    {"quit", "", "ends the virtual reader", nullptr, [](verbs& v, words&) { v.quit = true; }},
};

std::string verbs::run(const std::string& line) {
  std::string right;
  try {
    words given(line);
    if (given.at_end()) return {};
    std::string name = given.take();
    if (name == "card" && !given.at_end()) name += " " + given.take();
    if (name == "expect" && given.take_if("cards")) name += " cards";
    const auto one =
        std::find_if(all.begin(), all.end(), [&](const verb& each) { return each.name == name; });
    if (one == all.end()) throw bad_line("unknown verb '" + name + "'; `help` lists all");
    right = "right would be: " + name + (one->syntax.empty() ? "" : " ") + one->syntax;
    words rehearsed = given;
    state no_reader;
    if (one->change) one->change(no_reader, rehearsed);
    if (one->change || one->syntax.empty()) rehearsed.take_end();
    if (one->syntax.empty()) right.clear();
    if (one->act) one->act(*this, given);
    if (one->change) reader.change([&](state& s) { one->change(s, given); });
    return {};
  } catch (const bad_line& error) {
    const std::string what = error.what();
    return what + (what.empty() || right.empty() ? "" : "; ") + right;
  }
}

// Prints the lines that begin with the topic.
void verbs::show(const std::string& topic) const {
  const state s = reader.look();
  std::vector<std::string> lines = {!s.plugged      ? "unplugged"
                                    : s.holder >= 0 ? "plugged in, connected"
                                                    : "plugged in",
                                    "part " + (s.part_number ? quoted(*s.part_number) : "none")};
  for (const card_id& id : s.queue) lines.push_back("card queued " + id.text);
  if (s.held) lines.push_back("card held " + s.held->text);
  lines.push_back("led " + (s.plugged ? s.led : "dark"));
  lines.push_back("beeps " + std::to_string(s.short_beeps) + " short, " +
                  std::to_string(s.long_beeps) + " long");
  lines.push_back("rules " + std::to_string(s.faults.size()));
  for (const std::string& line : lines) {
    if (line.rfind(topic, 0) == 0) print(line);
  }
}

void verbs::expect(bool came, const std::string& what) {
  held &= came;
  if (!came) print("FAILED: expected " + what);
}

}  // namespace virtual_reader
