#include "expectations.h"

#include <algorithm>

namespace virtual_reader {

namespace {

// An application may react so much later to what was expected last.
constexpr std::chrono::milliseconds settle_time{300};

std::string kind_of(const event& e) { return e.text.substr(0, e.text.find(' ')); }

}  // namespace

std::string failed_expectation::text() const {
  std::string all = std::string("FAILED: ") + what();
  all += events.empty() ? "; nothing has happened since\n" : "; since then:\n";
  for (const std::string& line : events) all += "  " + line + "\n";
  return all;
}

std::uint64_t expectations::cursor(const std::string& kind) const {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto own = cursors.find(kind);
  return std::max(step, own == cursors.end() ? 0 : own->second);
}

void expectations::hold(const std::string& kind, std::uint64_t number) {
  const std::lock_guard<std::mutex> lock(mutex);
  cursors[kind] = number + 1;
  furthest = std::max(furthest, number + 1);
  last_held = std::chrono::steady_clock::now();
  ++held_count;
}

bool expectations::has_card_before(std::uint64_t number) const {
  for (std::uint64_t next = step; next < number;) {
    const std::vector<event> events = reader.log.read(next);
    if (events.empty()) return false;
    for (const event& each : events) {
      next = each.end();
      if (each.number < number && kind_of(each) == "card") return true;
    }
  }
  return false;
}

void expectations::begin_step(bool presents_card, const stop_function& is_stopped) {
  if (!is_script) return;
  awaits_card = presents_card;
  if (!has_expected) return;
  end_step(is_stopped);
  step = furthest = reader.log.end();
  has_expected = false;
}

void expectations::end_step(const stop_function& is_stopped) {
  if (strict.empty()) return;
  const auto is_left = [this](const event& e) {
    const std::string kind = kind_of(e);
    return strict.count(kind) != 0 && e.end() > cursor(kind);
  };
  expect_none("expected no more in this step", is_left, step, last_held + settle_time, is_stopped);
}

void expectations::expect(const expectation& what, const stop_function& is_stopped) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    has_expected = true;
  }
  const moment until = std::chrono::steady_clock::now() + what.limit;
  using form = expectation::form;
  if (what.what == form::state) return expect_state(what, until, is_stopped);
  if (what.is_positive()) return expect_event(what, until, is_stopped);
  // What was expected of that kind is behind; of other kinds, what preceded that is, too.
  const std::vector<std::string>& all = pattern::effects();
  const std::set<std::string> effects =
      strict.empty() ? std::set<std::string>(all.begin(), all.end()) : strict;
  const auto matches = [&](const event& e) {
    const std::string kind = kind_of(e);
    const std::uint64_t from = strict.count(kind) != 0 ? cursor(kind) : furthest;
    if (e.end() <= from) return false;
    return what.what == form::nothing ? effects.count(kind) != 0 : what.wanted[0].matches(e.text);
  };
  expect_none(what.text(), matches, is_script ? step : furthest, until, is_stopped);
}

void expectations::expect_event(const expectation& what, moment until,
                                const stop_function& is_stopped) {
  const pattern& wanted = what.wanted[0];
  const bool is_strict = strict.count(wanted.kind) != 0 && what.what == expectation::form::next;
  std::string nearest = "no " + wanted.kind;
  for (std::uint64_t next = cursor(wanted.kind);;) {
    const bool is_last_look = std::chrono::steady_clock::now() >= until;
    for (const std::uint64_t known = reader.log.end(); next < known;) {
      if (is_strict && reader.log.has_dropped(next))
        fail(what.text() + ", but events were dropped");
      for (const event& each : reader.log.read(next)) {
        next = each.end();
        if (kind_of(each) != wanted.kind) continue;
        if (is_strict && awaits_card && !has_card_before(each.number)) {
          fail(what.text() + ", got " + each.text + " before the card was fetched");
        }
        if (wanted.matches(each.text)) return hold(wanted.kind, each.number);
        nearest = each.text;
        if (is_strict) fail(what.text() + ", got " + nearest);
      }
    }
    if (is_last_look) {
      fail(what.text() + " within " + std::to_string(what.limit.count()) + " ms, got " + nearest);
    }
    wait(next, until, is_stopped);
  }
}

void expectations::expect_state(const expectation& what, moment until,
                                const stop_function& is_stopped) {
  for (;;) {
    const std::uint64_t next = reader.log.end();
    const bool is_last_look = std::chrono::steady_clock::now() >= until;
    const std::string led = reader.read([](const auto& r) { return r.shown_led(); });
    if (led == what.led) {
      last_held = std::chrono::steady_clock::now();
      ++held_count;
      return;
    }
    if (is_last_look) fail(what.text() + ", got " + led);
    wait(next, until, is_stopped);
  }
}

void expectations::expect_none(const std::string& what,
                               const std::function<bool(const event&)>& matches, std::uint64_t from,
                               moment until, const stop_function& is_stopped) {
  for (std::uint64_t next = from;;) {
    const bool is_last_look = std::chrono::steady_clock::now() >= until;
    for (const std::uint64_t known = reader.log.end(); next < known;) {
      if (reader.log.has_dropped(next)) fail(what + ", but events were dropped");
      for (const event& each : reader.log.read(next)) {
        next = each.end();
        if (matches(each)) fail(what + ", got " + each.text);
      }
    }
    if (is_last_look) return;
    wait(next, until, is_stopped);
  }
}

void expectations::wait(std::uint64_t number, moment until, const stop_function& is_stopped) const {
  reader.log.wait(number, until, is_stopped);
  if (is_stopped && is_stopped()) throw cancelled();
}

void expectations::fail(const std::string& what) const {
  constexpr std::size_t most = 20, longest = 500;
  std::vector<std::string> lines;
  const auto is_wanted = [from = is_script ? step : furthest](const event& e) {
    return e.end() > from && !e.is_idle;
  };
  for (const event& each : reader.log.last(most + 1, is_wanted)) {
    std::string line = to_text(each);
    if (line.size() > longest) line.replace(longest, line.npos, " ...");
    lines.push_back(std::move(line));
  }
  if (lines.size() > most) lines.front() = "...";
  throw failed_expectation(what, lines);
}

}  // namespace virtual_reader
