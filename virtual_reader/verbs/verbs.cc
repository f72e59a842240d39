#include "verbs.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "scenario.h"
#include "tokens.h"

namespace virtual_reader {

// One or two words, the syntax of what follows them, and what they do.
struct verb {
  std::string name, syntax, help;
  // Takes what follows, up to the end, and says what to do then. Throws syntax_error.
  void (*parse)(tokens& given, command* made);
};

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

std::uint64_t take_count(tokens& given) {
  return static_cast<std::uint64_t>(given.take_number(1, most));
}

milliseconds take_time(tokens& given) {
  return milliseconds(given.take_number(0, fault::longest.count()));
}

// Takes the WHEN, and sets the fault for those calls.
void take_when(tokens& given, fault made, const char* usual_when, command* told) {
  const std::string when = given.at_end() ? usual_when : given.take();
  const bool is_counted = when == "times" || when == "at" || when == "from";
  if (!is_counted && when != "once" && when != "always") throw syntax_error("");
  const std::uint64_t number = is_counted ? take_count(given) : 1;
  made.first = when == "times" ? 1 : number;
  made.last = when == "from" || when == "always" ? fault::for_ever : number;
  told->change = [made](reader& r) { r.faults.add(made); };
}

tracing take_tracing(tokens& given) {
  if (given.take_if("on")) return tracing::on;
  if (given.take_if("quiet")) return tracing::quiet;
  if (given.take_if("off")) return tracing::off;
  throw syntax_error("");
}

void print_help(const session& s, const std::string& topic);

const std::vector<verb> all = {
    {"plug", "", "plug the reader in",
     [](tokens&, command* c) { c->change = [](reader& r) { r.plug(); }; }},
    {"unplug", "", "unplug the reader",
     [](tokens&, command* c) { c->change = [](reader& r) { r.unplug(); }; }},
    {"replug", "", "unplug the reader and plug it in",
     [](tokens&, command* c) { c->change = [](reader& r) { r.unplug(), r.plug(); }; }},
    {"part", "none|\"TEXT\"", "set the part number from the next connection on",
     [](tokens& w, command* c) {
       std::optional<std::string> part;
       if (!w.take_if("none")) part = w.take_quoted();
       c->change = [part](reader& r) { r.part_number = part; };
     }},
    {"card queue", "HEX[/BITS] ...", "queue cards that are fetched once each, in order",
     [](tokens& w, command* c) {
       std::vector<card_id> cards;
       do {
         cards.push_back(take_card(w));
       } while (!w.at_end());
       c->change = [cards](reader& r) {
         r.queue.insert(r.queue.end(), cards.begin(), cards.end());
       };
     }},
    {"card drop", "", "drop the queued cards",
     [](tokens&, command* c) { c->change = [](reader& r) { r.queue = {}; }; }},
    {"card hold", "HEX[/BITS]", "hold a card, which every poll fetches",
     [](tokens& w, command* c) {
       const card_id id = take_card(w);
       c->change = [id](reader& r) { r.hold(id); };
     }},
    {"card show", "HEX[/BITS] for MS", "hold a card for a time, as a person does",
     [](tokens& w, command* c) {
       const card_id id = take_card(w);
       if (!w.take_if("for")) throw syntax_error("");
       const milliseconds time = take_time(w);
       c->acts = c->waits = true;
       c->act = [id, time,
                 text = "verb card show " + to_text(id) + " for " +
                        std::to_string(time.count())](const session& s) {
         s.reader.modify([&](reader& r) {
           r.log.add(0, text);
           r.hold(id);
         });
         s.wait(time);
         s.reader.modify([](reader& r) { r.hold({}); });
       };
     }},
    {"card remove", "", "remove the held card",
     [](tokens&, command* c) { c->change = [](reader& r) { r.hold({}); }; }},
    {"card raw", "BITS VALUE ...", "queue an ID of up to 32 numbers of any size",
     [](tokens& w, command* c) {
       c->change = [id = take_raw_card(w)](reader& r) { r.queue.push_back(id); };
     }},
    {"fail", "CALL [error N] [WHEN]", "make calls fail, without effect",
     [](tokens& w, command* c) {
       fault made{fault::kind::fail, w.take_call()};
       if (w.take_if("error")) made.error = w.take_number(least, most);
       take_when(w, made, "once", c);
     }},
    {"vanish", "CALL [WHEN]", "unplug the reader in the middle of a call",
     [](tokens& w, command* c) {
       take_when(w, {fault::kind::vanish, w.take_call()}, "once", c);
     }},
    {"delay", "CALL MS [WHEN]", "make calls take so long; WHEN defaults to always",
     [](tokens& w, command* c) {
       fault made{fault::kind::delay, w.take_call()};
       made.time = take_time(w);
       take_when(w, made, "always", c);
     }},
    {"hang", "CALL [WHEN]", "make a call wait for `release`, at most a day",
     [](tokens& w, command* c) {
       fault made{fault::kind::hang, w.take_call()};
       made.time = fault::longest;
       take_when(w, made, "once", c);
     }},
    {"say", "CALL [thread] \"TEXT\" [length N] [WHEN]",
     "make the library print a text during a call",
     [](tokens& w, command* c) {
       fault made{fault::kind::say, w.take_call()};
       made.own_thread = w.take_if("thread");
       made.text = w.take_quoted();
       made.length = static_cast<int>(made.text.size());
       constexpr int shortest = std::numeric_limits<int>::min();
       if (w.take_if("length")) made.length = w.take_number(shortest, made.length);
       take_when(w, made, "once", c);
     }},
    {"release", "", "end the calls that hang or are delayed",
     [](tokens&, command* c) { c->change = [](reader& r) { ++r.releases; }; }},
    {"clear", "[CALL|ID]", "drop all faults, those of one call, or one",
     [](tokens& w, command* c) {
       if (w.at_end()) {
         c->change = [](reader& r) { r.faults.clear(); };
       } else if (w.is_number()) {
         c->change = [id = take_count(w)](reader& r) { r.faults.clear(id); };
       } else {
         c->change = [call = w.take_call()](reader& r) { r.faults.clear(call); };
       }
     }},
    {"show", "[--json]", "print the reader's state",
     [](tokens& w, command* c) {
       const bool as_json = w.take_if("--json");
       c->act = [as_json](const session& s) { s.show(as_json); };
     }},
    {"led", "", "print what the LED shows",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         s.answer("led " + s.reader.read([](const reader& r) { return r.shown_led(); }));
       };
     }},
    {"beeps", "", "print how often the reader has beeped",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         s.answer(s.reader.read([](const reader& r) {
           return "beeps " + std::to_string(r.short_beeps) + " short, " +
                  std::to_string(r.long_beeps) + " long";
         }));
       };
     }},
    {"script", "", "print the lines of the script that runs",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         const auto state = s.callbacks.run ? s.callbacks.run() : run_state();
         if (!state.played) throw syntax_error("no script is run");
         for (const std::string& line : state.played->lines) s.answer(line);
       };
     }},
    {"config", "", "print the stored configuration",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         const auto stored = s.reader.read([](const reader& r) { return r.stored; });
         for (const std::string& line : to_text(stored, true)) s.answer(line);
       };
     }},
    {"events", "[--json] [follow] [all] [N]", "print the last N events (20); all: idle polls too",
     [](tokens& w, command* c) {
       session::events_wanted wanted{w.take_if("--json"), w.take_if("follow"), w.take_if("all"),
                                     20};
       if (wanted.follows) wanted.most = 0;
       if (!w.at_end()) wanted.most = take_count(w);
       c->act = [wanted](const session& s) { s.show_events(wanted); };
     }},
    {"trace", "on|quiet|off", "print each call; quiet: without idle polls",
     [](tokens& w, command* c) {
       const tracing wanted = take_tracing(w);
       c->act = [wanted](const session& s) {
         if (!s.callbacks.trace) throw syntax_error("nothing is printed here");
         s.reader.modify([&](reader& r) { r.id_questions_wanted = wanted != tracing::off; });
         s.callbacks.trace(wanted);
       };
     }},
    {"echo", "\"TEXT\"", "print a text",
     [](tokens& w, command* c) {
       const std::string text = w.take_quoted();
       if (text.find('\n') != std::string::npos) throw syntax_error("the text is one line");
       c->act = [text](const session& s) { s.answer(text); };
     }},
    {"wait", "MS", "wait",
     [](tokens& w, command* c) {
       const milliseconds time = take_time(w);
       c->waits = time.count() > 0;
       c->act = [time](const session& s) { s.wait(time); };
     }},
    {"expect", "[eventually|no] PATTERN [within MS] | led is COLOR | nothing for MS",
     "wait for an event, at most 5000 ms",
     [](tokens& w, command* c) {
       c->expected.emplace(&w);
       c->act = [what = *c->expected](const session& s) {
         s.expected.expect(what, s.callbacks.is_interrupted);
       };
     }},
    {"send", "\"LINE\"", "send a line to the command under test",
     [](tokens& w, command* c) {
       const std::string line = w.take_quoted();
       if (line.find('\n') != std::string::npos) throw syntax_error("expected one line");
       c->acts = true;
       c->act = [line](const session& s) {
         if (!s.callbacks.send) {
           throw syntax_error("`send` needs an agent: virtual-reader SCRIPT -- AGENT");
         }
         s.callbacks.send(line);
       };
     }},
    {"scenario", "", "print the session so far as a script",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         for (const std::string& line :
              to_scenario(s.reader.log.last(SIZE_MAX, [](const event&) { return true; })))
           s.answer(line);
       };
     }},
    {"loop", "[N]", "play the script again, N times in all",
     [](tokens& w, command* c) {
       c->loops = w.at_end() ? 0 : take_count(w);
       c->act = [](const session&) { throw syntax_error("only a script can loop"); };
     }},
    {"help", "[VERB]", "print help",
     [](tokens& w, command* c) {
       std::string topic = w.at_end() ? "" : w.take();
       if (!w.at_end()) topic += " " + w.take();
       c->act = [topic](const session& s) { print_help(s, topic); };
     }},
    {"quit", "", "end the virtual reader",
     [](tokens&, command* c) {
       c->act = [](const session& s) {
         if (!s.callbacks.quit) throw syntax_error("there is nothing to end here");
         s.callbacks.quit();
       };
     }},
};

std::vector<std::string> names() {
  std::vector<std::string> found = {"card"};
  for (const verb& one : all) found.push_back(one.name);
  return found;
}

void print_help(const session& s, const std::string& topic) {
  bool is_known = false;
  const auto explain = [&](const std::string& what, const std::string& help) {
    std::string text = what;
    text.resize(std::max<std::size_t>(text.size() + 2, 34), ' ');
    s.answer(text + help);
    is_known = true;
  };
  const auto is_wanted = [&](const std::string& name) {
    return topic.empty() || name == topic || name.rfind(topic + " ", 0) == 0;
  };
  for (const verb& one : all) {
    if (is_wanted(one.name)) explain(one.name + " " + one.syntax, one.help);
  }
  if (is_wanted("CALL")) {
    std::string calls;
    for (const std::string& call : call_names) calls += (calls.empty() ? "" : " ") + call;
    explain("CALL", calls);
  }
  if (is_wanted("WHEN")) {
    explain("WHEN", "once (default); times N; at K, from K: the K-th call from now; always");
  }
  if (is_wanted("PATTERN") || topic == "expect") {
    std::string kinds;
    for (const std::string& kind : pattern::kinds()) kinds += (kinds.empty() ? "" : " ") + kind;
    explain("PATTERN",
            "a kind of events and its details, as `events` prints them; `received` takes a whole "
            "line or /EXPRESSION/; kinds:");
    explain("", kinds);
  }
  if (!is_known) throw syntax_error("no verb '" + topic + "'" + suggestion(topic, names()));
}

}  // namespace

command parse(const std::string& line) {
  command made;
  std::string right;
  try {
    tokens given(line);
    if (given.at_end()) return made;
    const std::string spaces = " \t\r";
    const std::size_t start = line.find_first_not_of(spaces);
    const std::size_t size = line.find_last_not_of(spaces) + 1 - start;
    made.text = without_controls(line.substr(start, std::min(size, longest_event + 1)));
    std::string name = given.take();
    if (name == "exit") name = "quit";
    if (name == "card" && !given.at_end() && !given.is_quoted()) name += " " + given.take();
    const auto one =
        std::find_if(all.begin(), all.end(), [&](const verb& each) { return each.name == name; });
    if (one == all.end()) {
      throw syntax_error("unknown verb '" + without_controls(name) + "'" +
                         suggestion(name, names()));
    }
    right = "usage: " + name + (one->syntax.empty() ? "" : " ") + one->syntax;
    made.what = &*one;
    one->parse(given, &made);
    given.take_end();
    made.acts |= made.change != nullptr;
    made.presents_card = name == "card queue" || name == "card hold" || name == "card show";
    return made;
  } catch (const syntax_error& error) {
    const std::string what = error.what();
    throw syntax_error(what + (what.empty() || right.empty() ? "" : "; ") + right);
  }
}

std::set<std::string> named_effects(const std::vector<command>& script) {
  std::set<std::string> names;
  for (const command& each : script) {
    if (each.expected) names.insert(each.expected->effect());
  }
  names.erase("");
  return names;
}

bool is_verb(const command& told, const std::string& name) {
  return told.what && told.what->name == name;
}

}  // namespace virtual_reader
