#include "session.h"

#include <algorithm>

#include "event_json.h"
#include "verbs.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t longest = 500;  // that anybody reads of a line

std::string shortened(std::string text) {
  return text.size() > longest ? text.replace(longest, std::string::npos, " ...") : text;
}

std::string line_of(const event& entry) {
  const std::string times = " (" + std::to_string(entry.count) + " times)";
  return to_text(static_cast<const event_line&>(entry)) + (entry.count > 1 ? times : "");
}

std::string seconds_since(std::chrono::steady_clock::time_point then) {
  const auto past = std::chrono::steady_clock::now() - then;
  return to_decimal(past / std::chrono::milliseconds(100), 1);
}

std::string when_of(const fault& r) {
  const std::uint64_t next = r.first > r.seen ? r.first - r.seen : 1;
  if (r.last == fault::for_ever) return next == 1 ? " always" : " from " + std::to_string(next);
  if (next > 1) return " at " + std::to_string(next);
  const std::uint64_t left = r.last - r.seen;
  return left == 1 ? " once" : " times " + std::to_string(left);
}

}  // namespace

void session::execute(const std::string& line) const { execute(parse(line)); }

void session::execute(const command& verb) const {
  if (verb.acts) expected.begin_step(verb.presents_card, callbacks.is_interrupted);
  if (verb.change) {
    reader.modify([&](virtual_reader::reader& r) {
      r.log.add(0, "verb " + verb.text);
      verb.change(r);
    });
  }
  if (verb.act) verb.act(*this);
}

void session::show(bool as_json) const {
  const auto json_bool = [](bool is_so) { return std::string(is_so ? "true" : "false"); };
  json_fields fields;
  reader.read([&](const virtual_reader::reader& r) {
    std::vector<std::string> queued, agents, calls, faults;
    for (const card_id& card : r.queue) {
      if (queued.size() < 100) queued.push_back(json_string(to_text(card)));
    }
    for (const auto& [agent, own] : r.agents) {
      agents.push_back(json_object({{"number", std::to_string(agent)},
                                    {"seconds", seconds_since(own.since)},
                                    {"holds_reader", json_bool(agent == r.holder)}}));
    }
    for (const auto& call : r.waiting) {
      calls.push_back(json_object({{"agent", std::to_string(call.agent)},
                                   {"name", json_string(call.name)},
                                   {"state", call.hangs ? "\"hangs\"" : "\"delayed\""},
                                   {"seconds", seconds_since(call.since)}}));
    }
    for (const fault& each : r.faults.list()) {
      faults.push_back(json_object({{"id", std::to_string(each.id)},
                                    {"text", json_string(shortened(to_text(each) + when_of(each)))},
                                    {"call", json_string(each.call)}}));
    }
    fields = {{"is_plugged", json_bool(r.plugged)},
              {"part", r.part_number ? json_string(r.part_number->substr(0, longest)) : "null"},
              {"led", json_string(r.shown_led())},
              {"beeps", json_object({{"short", std::to_string(r.short_beeps)},
                                     {"long", std::to_string(r.long_beeps)}})},
              {"held", r.held ? json_string(to_text(*r.held)) : "null"},
              {"queued", json_array(queued)},
              {"more_queued", std::to_string(r.queue.size() - queued.size())},
              {"agents", json_array(agents)},
              {"calls", json_array(calls)},
              {"faults", json_array(faults)}};
  });
  const std::string refused = "agent refused: ";
  std::vector<std::string> all_refused;
  for (const auto& entry :
       reader.log.last(5, [&](const auto& e) { return e.text.rfind(refused, 0) == 0; })) {
    all_refused.push_back(json_object({{"number", std::to_string(entry.agent)},
                                       {"why", json_string(entry.text.substr(refused.size()))}}));
  }
  const run_state run = callbacks.run ? callbacks.run() : run_state();
  std::string command = "null", script = "null";
  if (const auto& of = run.command_under_test) {
    command = json_object({{"text", json_string(of->text)},
                           {"is_running", json_bool(of->is_running)},
                           {"is_agent", json_bool(of->is_agent)}});
  }
  if (const auto& of = run.played) {
    script = json_object({{"path", json_string(of->path)},
                          {"line", std::to_string(of->line)},
                          {"is_finished", json_bool(of->is_finished)}});
  }
  fields.insert(fields.end(),
                {{"refused", json_array(all_refused)}, {"command", command}, {"script", script}});
  if (as_json) return answer(json_object(fields));
  for (const auto& [name, value] : fields) answer(shortened(name + " " + value));
}

void session::show_events(const events_wanted& wanted) const {
  const bool as_json = wanted.as_json, follows = wanted.follows;
  const auto is_wanted = [all = wanted.with_polls](const event& e) { return all || !e.is_idle; };
  const auto line = [as_json](const event& e) { return as_json ? to_json(e) : line_of(e); };
  if (follows && !callbacks.may_follow)
    throw syntax_error("only --execute can follow; try `trace on`");
  std::uint64_t next = reader.log.end();
  for (const auto& entry : reader.log.last(wanted.most, is_wanted)) {
    answer(line(entry));
    next = entry.end();
  }
  if (follows && callbacks.followed) callbacks.followed();
  while (follows) {
    const bool came = reader.log.wait(next, std::chrono::steady_clock::time_point::max(),
                                      callbacks.is_interrupted);
    if (!came) throw cancelled();
    for (const auto& entry : reader.log.read(next)) {
      if (entry.number > next) {
        event gap = entry;
        gap.number = next, gap.count = entry.number - next, gap.agent = 0, gap.text = "dropped";
        answer(as_json ? to_json(gap) : std::to_string(gap.count) + " events dropped");
      }
      if (is_wanted(entry)) answer(line(entry));
      next = entry.end();
    }
  }
}

void session::wait(milliseconds time) const {
  const auto until = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < until) {
    if (reader.log.wait(reader.log.end(), until, callbacks.is_interrupted)) continue;
    if (callbacks.is_interrupted && callbacks.is_interrupted()) throw cancelled();
  }
}

}  // namespace virtual_reader
