#include "session.h"

#include <algorithm>
#include <sstream>

#include "verbs.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t longest = 500;  // that anybody reads of a line

std::string shortened(std::string text) {
  return text.size() > longest ? text.replace(longest, std::string::npos, " ...") : text;
}

std::string line_of(const record::entry& entry) {
  const std::string times = " (" + std::to_string(entry.count) + " times)";
  return to_text(static_cast<const entry_line&>(entry)) + (entry.count > 1 ? times : "");
}

std::string seconds_since(std::chrono::steady_clock::time_point then) {
  const auto past = std::chrono::steady_clock::now() - then;
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(past).count()) + " s";
}

std::string when_of(const rule& r) {
  const std::uint64_t next = r.first > r.seen ? r.first - r.seen : 1;
  if (r.last == rule::for_ever) return next == 1 ? " always" : " from " + std::to_string(next);
  if (next > 1) return " at " + std::to_string(next);
  const std::uint64_t left = r.last - r.seen;
  return left == 1 ? " once" : " times " + std::to_string(left);
}

}  // namespace

std::string failed_expectation::text() const {
  std::string all = std::string("FAILED: ") + what();
  all += entries.empty() ? "; nothing has happened since\n" : "; since then:\n";
  for (const std::string& entry : entries) all += "  " + entry + "\n";
  return all;
}

void session::carry_out(const std::string& line) const {
  const command told = parse(line);
  if (told.change) {
    reader.change([&](virtual_reader::reader& r) {
      r.happened.add(0, "verb " + told.text);
      told.change(r);
    });
  }
  if (told.act) told.act(*this);
}

// Prints the lines that begin with the topic.
void session::show(const std::string& topic) const {
  std::vector<std::string> lines;
  reader.look([&](const virtual_reader::reader& r) {
    lines.push_back(r.plugged ? "plugged in" : "unplugged");
    lines.push_back("part " + (r.part_number ? quoted(r.part_number->substr(0, longest)) : "none"));
    const std::vector<std::string> queued = r.queue.first(100);
    for (const std::string& card : queued) lines.push_back("card queued " + card);
    const std::size_t more = r.queue.size() - queued.size();
    if (more > 0) lines.push_back("cards queued behind these: " + std::to_string(more));
    if (r.held) lines.push_back("card held " + r.held->text);
    lines.push_back("led " + (r.plugged ? r.led : "dark"));
    lines.push_back("beeps " + std::to_string(r.short_beeps) + " short, " +
                    std::to_string(r.long_beeps) + " long");
    for (const rule& each : r.faults.list()) lines.push_back(to_text(each) + when_of(each));
    for (const auto& call : r.waiting) {
      lines.push_back(call.name + " of agent " + std::to_string(call.agent) +
                      (call.hangs ? " hangs since " : " is delayed since ") +
                      seconds_since(call.since));
    }
    for (const auto& [agent, since] : r.agents) {
      lines.push_back("agent " + std::to_string(agent) +
                      (agent == r.holder ? " is connected to the reader" : " is there") +
                      ", came " + seconds_since(since) + " ago");
    }
    if (r.agents.empty()) lines.emplace_back("no agent; one that runs searches every 10 s");
  });
  for (const auto& entry : reader.happened.last(
           1, [](const auto& e) { return e.text.rfind("agent refused: ", 0) == 0; })) {
    lines.push_back("last refused: " + line_of(entry));
  }
  for (const std::string& line : lines) {
    if (line.rfind(topic, 0) == 0) answer(shortened(line));
  }
}

void session::show_record(std::size_t most, bool with_polls, bool follows) const {
  const auto is_wanted = [&](const record::entry& e) { return with_polls || !e.is_idle; };
  if (follows && !outside.may_follow) throw bad_line("only --execute can follow; try `trace on`");
  std::uint64_t next = reader.happened.end();
  for (const auto& entry : reader.happened.last(most, is_wanted)) {
    answer(line_of(entry));
    next = entry.end();
  }
  while (follows) {
    const bool came = reader.happened.wait(next, std::chrono::steady_clock::time_point::max(),
                                           outside.is_interrupted);
    if (!came) throw interruption();
    for (const auto& entry : reader.happened.read(next)) {
      if (is_wanted(entry)) answer(line_of(entry));
      next = entry.end();
    }
  }
}

void session::show_calls(std::size_t most) const {
  const std::string head = "call ";
  for (const auto& entry :
       reader.happened.last(most, [&](const auto& e) { return e.text.rfind(head, 0) == 0; })) {
    const std::string times = " (" + std::to_string(entry.count) + " times)";
    answer(entry.text.substr(head.size()) + (entry.count > 1 ? times : ""));
  }
}

void session::wait(milliseconds time) const {
  const auto until = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < until) {
    if (reader.happened.wait(reader.happened.end(), until, outside.is_interrupted)) continue;
    if (outside.is_interrupted && outside.is_interrupted()) throw interruption();
  }
}

void session::expect(const expectation& what) const {
  const auto until = std::chrono::steady_clock::now() + what.limit;
  const std::uint64_t start = cursor;
  for (std::uint64_t next = start;;) {
    const bool is_last_look = std::chrono::steady_clock::now() >= until;
    for (const std::uint64_t known = reader.happened.end(); next < known;) {
      for (const auto& entry : reader.happened.read(next)) {
        if (what.is_negative && entry.number > next) {
          fail(what.text() + ", but some entries have been dropped", start);
        }
        next = entry.end();
        if (!what.wanted.matches(entry.text)) continue;
        if (what.is_negative) fail(what.text(), start);
        cursor = entry.number + 1;
        return;
      }
    }
    if (is_last_look && what.is_negative) return;
    if (is_last_look) fail(what.text(), start);
    reader.happened.wait(next, until, outside.is_interrupted);
    if (outside.is_interrupted && outside.is_interrupted()) throw interruption();
  }
}

void session::fail(const std::string& what, std::uint64_t from) const {
  constexpr std::size_t most = 20;
  std::vector<std::string> lines;
  const auto is_wanted = [&](const record::entry& e) { return e.end() > from && !e.is_idle; };
  for (const auto& entry : reader.happened.last(most + 1, is_wanted)) {
    lines.push_back(shortened(line_of(entry)));
  }
  if (lines.size() > most) lines.front() = "...";
  throw failed_expectation(what, lines);
}

}  // namespace virtual_reader
