// What has happened, in order and once: all that is printed, expected or counted is read off it.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "call.h"

namespace virtual_reader {

// An event in the log. Numbers grow by one and are never reused, so that a reader of the log goes
// on where it was, also when what is between has been dropped. Equal events in a row are one that
// has a count, and as many numbers.
struct event : event_line {
  std::uint64_t number = 0, count = 1;
  bool is_idle = false;  // a poll that found nothing new

  std::uint64_t end() const { return number + count; }
};

// Any member may be called from any thread, and none waits for those that read, but wait().
class event_log {
 public:
  // What the application prints, the calls, and all else each have a part of the limit, so that
  // none pushes the others out. Beyond it the oldest events are dropped, but for one.
  explicit event_log(std::size_t limit_in_bytes = std::size_t{4} << 20) : limit(limit_in_bytes) {}

  void add(int agent, std::string text, bool is_idle = false);

  // The number that the next event gets. The first has 1.
  std::uint64_t end() const;
  // Events from that number on, the first perhaps with those numbers alone; some kilobytes of them
  // at a time, none only if there are none. Less than `from` says nothing about what was dropped.
  std::vector<event> read(std::uint64_t from) const;
  // The last events that are wanted, at most so many.
  std::vector<event> last(std::size_t most, const std::function<bool(const event&)>& wanted) const;
  // Whether any event from that number on was dropped that is neither a call nor a line of the
  // application.
  bool has_dropped(std::uint64_t from) const;

  // Waits until there is an event with that number. False at the limit, or if it was interrupted,
  // which is asked at first and after wake().
  bool wait(std::uint64_t number, std::chrono::steady_clock::time_point until,
            const std::function<bool()>& is_interrupted) const;
  void wake() const;

 private:
  struct shelf {
    std::deque<std::uint64_t> numbers;  // of its events
    std::size_t bytes = 0;
    std::uint64_t dropped = 0;  // the end of what was
  };
  static std::size_t shelf_of(const std::string& text);

  const std::size_t limit;
  const std::chrono::steady_clock::time_point beginning = std::chrono::steady_clock::now();
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  // Guarded by mutex:
  std::map<std::uint64_t, event> events;  // by number
  std::array<shelf, 3> shelves;
  std::uint64_t next = 1;
  mutable std::uint64_t wakes = 0;
};

}  // namespace virtual_reader
