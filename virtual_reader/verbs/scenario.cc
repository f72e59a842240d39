#include "scenario.h"

#include <algorithm>
#include <map>

#include "expectation.h"
#include "fault.h"

namespace virtual_reader {

namespace {

using std::chrono::microseconds;

// At most what a verb takes.
std::int64_t in_milliseconds(microseconds time) {
  return std::min<std::int64_t>(time.count() / 1000, fault::longest.count());
}

std::string say(const recorded_call& call, const says& said) {
  return "say " + call.name + to_text(said).substr(std::string("says").size());
}

// The agent makes these by itself: a rule for the next one can be set in time.
bool is_of_agent(const recorded_call& call) { return call.is_poll() || call.name == "usbConnect"; }

class writer {
 public:
  explicit writer(const std::vector<recorded_call>& recorded) : calls(recorded) {}

  std::vector<std::string> write() {
    add("# Made from a recording: the reader does what it did, and the host is expected to do so "
        "too.");
    add_slow_calls();
    add_rules_of_commands();
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const recorded_call& call = calls[i];
      if (!call.has_ended) {
        add_hanging(call);
      } else if (call.is_poll()) {
        add_poll(call, find(i + 1, "GetQueuedID"), find(i + 1, "usbConnect"));
      } else if (call.name == "usbConnect") {
        add_search(call);
      } else {
        add_command(call);
      }
    }
    return std::move(lines);
  }

 private:
  void add(const std::string& line) { lines.push_back(line); }

  // The next call of that name, null if there is none.
  const recorded_call* find(std::size_t from, const std::string& name) const {
    while (from < calls.size() && calls[from].name != name) ++from;
    return from < calls.size() ? &calls[from] : nullptr;
  }

  // As long as it took then.
  void rest_until(const recorded_call& call) {
    const std::int64_t gap = in_milliseconds(call.ended - last);
    if (gap >= 500) add("wait " + std::to_string(gap / 10 * 10));
    last = call.ended;
  }

  void add_slow_calls() {
    std::map<std::string, std::vector<microseconds>> times;
    for (const recorded_call& each : calls) {
      if (each.has_ended) times[each.name].push_back(each.took.value_or(microseconds(0)));
    }
    for (auto& [name, all] : times) {
      std::sort(all.begin(), all.end());
      const std::int64_t middle = in_milliseconds(all[all.size() / 2]);
      if (middle >= 10) add("delay " + name + " " + std::to_string(middle));
    }
  }

  // By number, since no line knows when the host will make such a call.
  void add_rules_of_commands() {
    std::map<std::string, int> counts;
    for (const recorded_call& each : calls) {
      if (is_of_agent(each)) continue;
      const std::string when = " at " + std::to_string(++counts[each.name]);
      for (const says& said : each.said) add(say(each, said) + when);
      if (each.has_failed()) {
        add("fail " + each.name + " error " + std::to_string(each.error) + when);
      }
      if (!each.has_ended) add("hang " + each.name + when);
    }
  }

  void add_poll(const recorded_call& poll, const recorded_call* next, const recorded_call* search) {
    const std::string card = poll.card ? to_text(*poll.card) : "";
    const bool is_raw = card.rfind("raw", 0) == 0;
    if (poll.is_idle() && !is_held) shown = card;
    if (card == shown && !is_raw && !poll.has_failed() && poll.said.empty()) return;
    rest_until(poll);
    if (is_held && card != shown) add("card remove");
    is_held = is_held && card == shown;
    for (const says& said : poll.said) add(say(poll, said));
    if (poll.has_failed()) {
      is_plugged = search && !search->has_failed();
      add(is_plugged ? "fail GetQueuedID error " + std::to_string(poll.error) : "unplug");
    } else if (!card.empty() && (is_raw || card != shown)) {
      is_held = !is_raw && next && next->card && *next->card == *poll.card;
      add("card " + std::string(is_raw ? "" : is_held ? "hold " : "queue ") + card);
      add("expect card " + card);
    }
    shown = card;
  }

  void add_search(const recorded_call& search) {
    for (const says& said : search.said) add(say(search, said));
    if (search.has_failed()) return;
    if (!is_plugged) {
      rest_until(search);
      if (search.part != part) {
        part = search.part;
        add("part " +
            (part ? to_text(says{*part, static_cast<std::int64_t>(part->size()), false}).substr(5)
                  : "none"));
      }
      add("plug");
    }
    is_plugged = true;
    add("expect connected within 12000");
  }

  // One that never returned, the last of all.
  void add_hanging(const recorded_call& call) {
    rest_until(call);
    if (is_of_agent(call)) {
      for (const says& said : call.said) add(say(call, said));
      add("hang " + call.name);
    }
    add("expect enter " + call.name + " within 12000");
  }

  // The configuration's own fields are the reader's, so that only its calls are told.
  void add_command(const recorded_call& call) {
    const bool is_configuration = call.arguments.size() == 8 && call.name != "SetLEDCtrl";
    const bool is_asked = call.name == "BeepNow" || call.name == "SetLEDCtrl" ||
                          call.name == "ReadCfg" || call.name == "WriteCfg" ||
                          call.name == "ResetFactoryDflts";
    if (!is_configuration && !is_asked) return;
    std::string text = "expect call " + call.name;
    for (const std::int64_t argument : call.arguments) {
      if (!is_configuration) text += " " + std::to_string(argument);
    }
    add(text + " -> " + (call.has_failed() ? "0" : "1"));
    last = call.ended;
  }

  const std::vector<recorded_call>& calls;
  std::vector<std::string> lines;
  microseconds last{0};
  std::string shown;  // the card of the last poll
  std::optional<std::string> part = "VR-1";
  bool is_held = false, is_plugged = false;
};

}  // namespace

std::vector<std::string> to_scenario(const std::vector<recorded_call>& calls) {
  return writer(calls).write();
}

std::vector<std::string> to_scenario(const event_log& log) {
  const std::vector<std::string>& effects = pattern::effects();
  std::vector<std::string> lines = {"expect connected"};
  std::uint64_t next = 1;
  for (const std::uint64_t end = log.end(); next < end;) {
    for (const event& each : log.read(next)) {
      next = each.end();
      const std::size_t space = each.text.find(' ');
      const std::string kind = each.text.substr(0, space);
      const bool is_effect = std::find(effects.begin(), effects.end(), kind) != effects.end();
      std::string line = is_effect ? "expect " + each.text : "";
      if (kind == "verb") line = each.text.substr(space + 1);
      if (kind == "sent") {
        const std::string sent = each.text.substr(space + 1);
        const bool is_named = sent.rfind("Global:", 0) != 0;
        line = "send " + quoted(sent.substr(is_named ? sent.find(':') + 1 : 0));
      }
      if (!line.empty()) lines.insert(lines.end(), each.count, line);
    }
  }
  return lines;
}

}  // namespace virtual_reader
