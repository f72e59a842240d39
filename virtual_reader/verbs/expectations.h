// Compares the event log with what a script or a session expects, step by step.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "device.h"
#include "expectation.h"

namespace virtual_reader {

// An expectation that failed: a line with expected and actual, and the events
// since.
struct failed_expectation : std::runtime_error {
  failed_expectation(const std::string& what, std::vector<std::string> events_since)
      : runtime_error(what), events(std::move(events_since)) {}
  std::vector<std::string> events;

  std::string text() const;  // for people: lines, each with its newline
};
// The caller does not want to know any more.
struct cancelled {};

// Each kind of events has a cursor of its own, behind the event that was expected last: what is
// expected next of that kind must follow it.
//
// A session skips what it does not expect, and several may share one object. A script has steps,
// and is strict: of an effect that it names, the next event must be the one that the next line
// expects, and none may be left when a step ends. May be used by several threads if it is not a
// script's.
class expectations {
 public:
  using stop_function = std::function<bool()>;

  // Of sessions.
  explicit expectations(const device& expected_of) : reader(expected_of) {}
  // Of a script that names these effects (`named_effects`).
  expectations(const device& expected_of, std::set<std::string> effects)
      : reader(expected_of), strict(std::move(effects)), is_script(true) {}

  // Before a verb that acts on the reader or the application: in a script, a step ends here if
  // anything was expected since the last one began. If the verb presents a card, the effects that
  // are expected next must follow its fetch.
  void begin_step(bool presents_card, const stop_function& is_stopped);
  void expect(const expectation&, const stop_function& is_stopped);
  // After the last line of a script: its last step ends. All throw failed_expectation and
  // cancelled.
  void end_step(const stop_function& is_stopped);

  // The positive expectations that held.
  std::size_t held() const { return held_count; }

 private:
  using moment = std::chrono::steady_clock::time_point;
  std::uint64_t cursor(const std::string& kind) const;
  void hold(const std::string& kind, std::uint64_t number);
  bool has_card_before(std::uint64_t number) const;
  void expect_event(const expectation&, moment until, const stop_function& is_stopped);
  void expect_state(const expectation&, moment until, const stop_function& is_stopped);
  // Fails if any event matches up to then.
  void expect_none(const std::string& what, const std::function<bool(const event&)>& matches,
                   std::uint64_t from, moment until, const stop_function& is_stopped);
  void wait(std::uint64_t number, moment until, const stop_function& is_stopped) const;
  [[noreturn]] void fail(const std::string& what) const;

  const device& reader;
  const std::set<std::string> strict;
  const bool is_script = false;
  std::atomic<std::size_t> held_count{0};
  mutable std::mutex mutex;
  // Guarded by mutex:
  std::map<std::string, std::uint64_t> cursors;
  std::uint64_t step = 1;      // the number of the first event of the step
  std::uint64_t furthest = 1;  // behind all that was expected
  bool has_expected = false;   // since the step began
  bool awaits_card = false;    // the step's last verb presents one
  moment last_held{};
};

}  // namespace virtual_reader
