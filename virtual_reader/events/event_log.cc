#include "event_log.h"

#include <algorithm>
#include <iterator>

namespace virtual_reader {

namespace {

// Roughly, with what keeps it in its places.
std::size_t bytes_of(const event& e) { return sizeof e + 64 + e.text.capacity(); }

}  // namespace

std::size_t event_log::shelf_of(const std::string& text) {
  const std::string kind = text.substr(0, text.find(' '));
  if (kind == "received" || kind == "sent") return 1;
  return kind == "call" || kind == "enter" || kind == "says" ? 2 : 0;
}

void event_log::add(int agent, std::string text, bool is_idle) {
  if (text.size() > longest_event) text = text.substr(0, longest_event) + " ...";
  const std::lock_guard<std::mutex> lock(mutex);
  ++next;
  if (!events.empty()) {
    event& before = events.rbegin()->second;
    if (before.end() == next - 1 && before.agent == agent && before.is_idle == is_idle &&
        before.text == text) {
      ++before.count;
      return changed.notify_all();
    }
  }
  shelf& own = shelves[shelf_of(text)];
  event& added = events[next - 1];
  added.time = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - beginning);
  added.agent = agent;
  added.text = std::move(text);
  added.number = next - 1;
  added.is_idle = is_idle;
  own.bytes += bytes_of(added);
  own.numbers.push_back(added.number);
  const std::size_t part = &own == &shelves[0] ? limit / 2 : limit / 4;
  for (; own.bytes > part && own.numbers.size() > 1; own.numbers.pop_front()) {
    const auto oldest = events.find(own.numbers.front());
    own.bytes -= bytes_of(oldest->second);
    own.dropped = oldest->second.end();
    events.erase(oldest);
  }
  changed.notify_all();
}

std::uint64_t event_log::end() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return next;
}

bool event_log::has_dropped(std::uint64_t from) const {
  const std::lock_guard<std::mutex> lock(mutex);
  return shelves[0].dropped > from;
}

std::vector<event> event_log::read(std::uint64_t from) const {
  constexpr std::size_t piece = 65536;
  const std::lock_guard<std::mutex> lock(mutex);
  std::vector<event> found;
  auto place = events.upper_bound(from);
  if (place != events.begin() && std::prev(place)->second.end() > from) --place;
  for (std::size_t size = 0; place != events.end() && size < piece; ++place) {
    found.push_back(place->second);
    size += bytes_of(found.back());
  }
  if (!found.empty() && found.front().number < from) {
    found.front().count = found.front().end() - from;
    found.front().number = from;
  }
  return found;
}

std::vector<event> event_log::last(std::size_t most,
                                   const std::function<bool(const event&)>& wanted) const {
  std::vector<event> found;
  const std::lock_guard<std::mutex> lock(mutex);
  for (auto place = events.rbegin(); place != events.rend() && found.size() < most; ++place) {
    if (wanted(place->second)) found.push_back(place->second);
  }
  std::reverse(found.begin(), found.end());
  return found;
}

bool event_log::wait(std::uint64_t number, std::chrono::steady_clock::time_point until,
                     const std::function<bool()>& is_interrupted) const {
  std::unique_lock<std::mutex> lock(mutex);
  while (next <= number) {
    const std::uint64_t wakes_before = wakes;
    lock.unlock();  // since it may look at anything
    const bool is_over = std::chrono::steady_clock::now() >= until;
    if (is_over || (is_interrupted && is_interrupted())) return false;
    lock.lock();
    const auto has_changed = [&] { return next > number || wakes != wakes_before; };
    if (until == std::chrono::steady_clock::time_point::max()) {
      changed.wait(lock, has_changed);
    } else {
      changed.wait_until(lock, until, has_changed);
    }
  }
  return true;
}

void event_log::wake() const {
  const std::lock_guard<std::mutex> lock(mutex);
  ++wakes;
  changed.notify_all();
}

}  // namespace virtual_reader
