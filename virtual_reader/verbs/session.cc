#include "session.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

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
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(past).count()) + " s";
}

std::string json_seconds_since(std::chrono::steady_clock::time_point then) {
  const std::chrono::duration<double> past = std::chrono::steady_clock::now() - then;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", past.count());
  return text;
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
  if (verb.acts) expected.begin_step(callbacks.is_interrupted);
  if (verb.change) {
    reader.modify([&](virtual_reader::reader& r) {
      r.log.add(0, "verb " + verb.text);
      verb.change(r);
    });
  }
  if (verb.act) verb.act(*this);
}

// Prints the lines that begin with the topic.
void session::show(const std::string& topic) const {
  std::vector<std::string> lines;
  reader.read([&](const virtual_reader::reader& r) {
    lines.push_back(r.plugged ? "plugged in" : "unplugged");
    lines.push_back("part " + (r.part_number ? quoted(r.part_number->substr(0, longest)) : "none"));
    const std::size_t shown = std::min<std::size_t>(r.queue.size(), 100),
                      more = r.queue.size() - shown;
    for (std::size_t i = 0; i < shown; ++i) lines.push_back("card queued " + r.queue[i].text);
    if (more > 0) lines.push_back("cards queued behind these: " + std::to_string(more));
    if (r.held) lines.push_back("card held " + r.held->text);
    lines.push_back("led " + (r.plugged ? r.led : "dark"));
    lines.push_back("beeps " + std::to_string(r.short_beeps) + " short, " +
                    std::to_string(r.long_beeps) + " long");
    for (const fault& each : r.faults.list()) lines.push_back(to_text(each) + when_of(each));
    for (const auto& call : r.waiting) {
      lines.push_back(call.name + " of agent " + std::to_string(call.agent) +
                      (call.hangs ? " hangs since " : " is delayed since ") +
                      seconds_since(call.since));
    }
    for (const auto& [agent, own] : r.agents) {
      lines.push_back("agent " + std::to_string(agent) +
                      (agent == r.holder ? " is connected to the reader" : " is there") +
                      ", came " + seconds_since(own.since) + " ago");
    }
    if (r.agents.empty()) lines.emplace_back("no agent; one that runs searches every 10 s");
  });
  for (const auto& entry :
       reader.log.last(1, [](const auto& e) { return e.text.rfind("agent refused: ", 0) == 0; })) {
    lines.push_back("last refused: " + line_of(entry));
  }
  for (const std::string& line : lines) {
    if (line.rfind(topic, 0) == 0) answer(shortened(line));
  }
}

void session::show_as_json() const {
  const auto json_bool = [](bool is_so) { return std::string(is_so ? "true" : "false"); };
  const auto json_text = [](const auto& text) {
    return text ? json_string(text->substr(0, longest)) : "null";
  };
  json_fields fields;
  reader.read([&](const virtual_reader::reader& r) {
    std::vector<std::string> queued, agents, calls, faults;
    for (const card_id& card : r.queue) {
      if (queued.size() < 100) queued.push_back(json_string(card.text));
    }
    for (const auto& [agent, own] : r.agents) {
      agents.push_back(json_object({{"number", std::to_string(agent)},
                                    {"seconds", json_seconds_since(own.since)},
                                    {"holds_reader", json_bool(agent == r.holder)}}));
    }
    for (const auto& call : r.waiting) {
      calls.push_back(json_object({{"agent", std::to_string(call.agent)},
                                   {"name", json_string(call.name)},
                                   {"state", call.hangs ? "\"hangs\"" : "\"delayed\""},
                                   {"seconds", json_seconds_since(call.since)}}));
    }
    for (const fault& each : r.faults.list()) {
      faults.push_back(json_object({{"id", std::to_string(each.id)},
                                    {"text", json_string(shortened(to_text(each) + when_of(each)))},
                                    {"call", json_string(each.call)}}));
    }
    fields = {{"is_plugged", json_bool(r.plugged)},
              {"part", json_text(r.part_number)},
              {"led", json_string(r.plugged ? r.led : "dark")},
              {"beeps", std::to_string(r.short_beeps + r.long_beeps)},
              {"held", r.held ? json_string(r.held->text) : "null"},
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
  answer(json_object(fields));
}

void session::show_events(const events_wanted& wanted) const {
  const auto [as_json, follows, with_polls, most] = wanted;
  const auto is_wanted = [all = with_polls](const event& e) { return all || !e.is_idle; };
  const auto line = [json = as_json](const event& e) { return json ? to_json(e) : line_of(e); };
  if (follows && !callbacks.may_follow)
    throw syntax_error("only --execute can follow; try `trace on`");
  std::uint64_t next = reader.log.end();
  for (const auto& entry : reader.log.last(most, is_wanted)) {
    answer(line(entry));
    next = entry.end();
  }
  if (follows && callbacks.followed) callbacks.followed();
  while (follows) {
    const bool came = reader.log.wait(next, std::chrono::steady_clock::time_point::max(),
                                      callbacks.is_interrupted);
    if (!came) throw cancelled();
    for (const auto& entry : reader.log.read(next)) {
      if (is_wanted(entry)) answer(line(entry));
      next = entry.end();
    }
  }
}

void session::show_calls(std::size_t most) const {
  const std::string head = "call ";
  for (const auto& entry :
       reader.log.last(most, [&](const auto& e) { return e.text.rfind(head, 0) == 0; })) {
    const std::string times = " (" + std::to_string(entry.count) + " times)";
    answer(entry.text.substr(head.size()) + (entry.count > 1 ? times : ""));
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
