#include "scenario.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <stdexcept>

#include "event_json.h"
#include "verbs.h"

namespace virtual_reader {

namespace {

using std::chrono::microseconds;

// The agent makes these by itself: a fault for the next one can be set in time.
bool is_of_agent(const std::string& call) { return call == "GetQueuedID" || call == "usbConnect"; }

// A command of the application that failed.
bool is_failed_command(const std::string& text) {
  const auto made = parse_call(text);
  return made && made->has_failed() && !is_of_agent(made->name) && made->name[0] != 'g' &&
         result_of(made->name) == result_kind::status;
}

// What the event is in a script; nothing if it follows from others.
std::string line_of(const event& event, bool is_last) {
  const std::size_t space = event.text.find(' ');
  const std::string kind = event.text.substr(0, space), rest = event.text.substr(space + 1);
  const std::vector<std::string>& effects = pattern::effects();
  const bool is_effect = std::find(effects.begin(), effects.end(), kind) != effects.end();
  if (kind == "verb") return rest;
  if (kind == "sent") {
    return "send " + quoted(rest.rfind("Global:", 0) == 0 ? rest : rest.substr(rest.find(':') + 1));
  }
  if (event.text.rfind("received Reader: Dev", 0) == 0) return "expect received /^Reader: Dev/";
  if (kind == "connected") return "expect connected within 12000";
  if (kind == "enter" && is_last) {
    return "expect enter " + rest.substr(0, rest.find(' ')) + " within 12000";
  }
  if (kind == "call" && is_failed_command(event.text)) {
    return "expect " + event.text.substr(0, event.text.find(" ("));
  }
  return is_effect || kind == "card" ? "expect " + event.text : "";
}

// Makes a reader do what was recorded.
class player {
 public:
  std::vector<event> play(const std::vector<recorded_call>& calls) {
    set_faults(calls);
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const recorded_call& call = calls[i];
      if (is_of_agent(call.name)) {
        for (const says& said : call.said) run(say(call, said));
        if (!call.has_ended) run("hang " + call.name);
        const recorded_call* const next = find(calls, i + 1, call.name);
        call.is_poll() ? prepare(call, next, find(calls, i + 1, "usbConnect")) : connect(call);
      }
      virtual_reader::call made{call.name, call.arguments};
      if (call.has_ended) {
        fake.run(1, &made, call.has_failed() ? std::optional(call.error) : std::nullopt);
      }
      log.add(1, to_text(static_cast<const virtual_reader::call&>(call)));
      collect(call.ended);
    }
    return std::move(events);
  }

 private:
  static std::string say(const recorded_call& call, const says& said) {
    return "say " + call.name + to_text(said).substr(std::string("says").size());
  }
  static const recorded_call* find(const std::vector<recorded_call>& calls, std::size_t from,
                                   const std::string& name) {
    while (from < calls.size() && calls[from].name != name) ++from;
    return from < calls.size() ? &calls[from] : nullptr;
  }
  void run(const std::string& verb) {
    log.add(0, "verb " + verb);
    parse(verb).change(fake);
  }
  // By number, since no line knows when the application will make such a call.
  void set_faults(const std::vector<recorded_call>& calls) {
    std::map<std::string, int> counts;
    for (const recorded_call& each : calls) {
      if (is_of_agent(each.name)) continue;
      const std::string when = " at " + std::to_string(++counts[each.name]);
      for (const says& said : each.said) run(say(each, said) + when);
      if (each.has_failed()) {
        run("fail " + each.name + " error " + std::to_string(each.error) + when);
      }
      if (!each.has_ended) run("hang " + each.name + when);
    }
  }
  void prepare(const recorded_call& poll, const recorded_call* next, const recorded_call* search) {
    const bool is_still_there = poll.card && fake.held && *poll.card == *fake.held;
    if (fake.held && !is_still_there) run("card remove");
    if (poll.has_failed() && search && !search->has_failed()) {
      run("fail GetQueuedID error " + std::to_string(poll.error));
    } else if (poll.has_failed()) {
      run("unplug");
    } else if (poll.card && !is_still_there) {
      const std::string card = to_text(*poll.card);
      const bool is_held = card[0] != 'r' && next && next->card && *next->card == *poll.card;
      run("card " + std::string(card[0] == 'r' ? "" : is_held ? "hold " : "queue ") + card);
    }
  }
  void connect(const recorded_call& search) {
    if (search.has_failed() && fake.plugged) run("unplug");
    if (search.has_failed()) return;
    if (search.part != fake.part_number) {
      run("part " + (search.part ? quoted(*search.part) : "none"));
    }
    if (!fake.plugged) run("plug");
  }
  void collect(microseconds time) {
    for (std::vector<event> added; !(added = log.read(next_event)).empty();
         next_event = added.back().end()) {
      for (event& each : added) {
        each.time = time;
        if (each.text.rfind("config ", 0) == 0) each.text = "config";  // the rest was its reader's
        events.push_back(each);
      }
    }
  }

  event_log log;
  reader fake{log};
  std::vector<event> events;
  std::uint64_t next_event = 1;
};

}  // namespace

std::vector<std::string> to_scenario(const std::vector<event>& events) {
  std::vector<std::string> lines;
  microseconds last{0};
  bool has_begun = false;  // the command starts with the first `expect`, or wait
  for (const event& each : events) {
    const std::string line = line_of(each, &each == &events.back());
    if (line.empty()) continue;
    const auto gap = std::min<microseconds>(each.time - last, fault::longest);
    const bool is_expected = line.rfind("expect", 0) == 0;
    has_begun |= is_expected;
    if (has_begun && !is_expected && gap >= std::chrono::milliseconds(500)) {
      lines.push_back("wait " + std::to_string(gap.count() / 10'000 * 10));
    }
    last = each.time;
    lines.insert(lines.end(), each.count, line);
  }
  return lines;
}

std::vector<event> to_events(const std::vector<recorded_call>& calls) {
  return player().play(calls);
}

std::vector<event> read_events(const std::string& path) {
  std::ifstream file(path);
  if (file.peek() != '{') return to_events(read_recording(file, path));
  std::vector<event> events;
  for (std::string line; std::getline(file, line);) try {
      events.push_back(parse_json_event(line));
    } catch (const std::exception&) {
      throw std::runtime_error(path + ":" + std::to_string(events.size() + 1) +
                               ": invalid event: expected a line as `--events` writes it");
    }
  return events;
}

}  // namespace virtual_reader
