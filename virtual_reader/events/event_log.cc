#include "event_log.h"

#include <algorithm>

namespace virtual_reader {

namespace {

std::size_t bytes_of(const event& e) { return sizeof e + e.text.capacity(); }

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
  std::deque<event>& before = shelves[last_shelf].events;
  const bool is_same = !before.empty() && before.back().agent == agent &&
                       before.back().is_idle == is_idle && before.back().text == text;
  if (is_same) {
    ++before.back().count;
  } else {
    last_shelf = shelf_of(text);
    event added;
    added.time = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - beginning);
    added.agent = agent;
    added.text = std::move(text);
    added.number = next - 1;
    added.is_idle = is_idle;
    shelf& own = shelves[last_shelf];
    own.bytes += bytes_of(added);
    own.events.push_back(std::move(added));
    const std::size_t part = last_shelf == 0 ? limit / 2 : limit / 4;
    for (; own.bytes > part && own.events.size() > 1; own.events.pop_front()) {
      own.bytes -= bytes_of(own.events.front());
      own.dropped = own.events.front().end();
    }
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
  std::array<std::deque<event>::const_iterator, 3> places;
  for (std::size_t i = 0; i < shelves.size(); ++i) {
    places[i] = std::partition_point(shelves[i].events.begin(), shelves[i].events.end(),
                                     [&](const event& e) { return e.end() <= from; });
  }
  std::vector<event> found;
  for (std::size_t size = 0; size < piece;) {
    std::size_t first = shelves.size();
    for (std::size_t i = 0; i < shelves.size(); ++i) {
      if (places[i] == shelves[i].events.end()) continue;
      if (first == shelves.size() || places[i]->number < places[first]->number) first = i;
    }
    if (first == shelves.size()) break;
    found.push_back(*places[first]++);
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
  std::array<std::size_t, 3> left;
  for (std::size_t i = 0; i < shelves.size(); ++i) left[i] = shelves[i].events.size();
  while (found.size() < most) {
    const event* latest = nullptr;
    std::size_t from = 0;
    for (std::size_t i = 0; i < shelves.size(); ++i) {
      if (left[i] == 0) continue;
      const event& candidate = shelves[i].events[left[i] - 1];
      if (latest && candidate.number < latest->number) continue;
      latest = &candidate;
      from = i;
    }
    if (!latest) break;
    --left[from];
    if (wanted(*latest)) found.push_back(*latest);
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
    const auto now = std::chrono::steady_clock::now();
    if (now >= until || (is_interrupted && is_interrupted())) return false;
    lock.lock();
    if (next <= number && wakes == wakes_before) {
      changed.wait_until(lock, std::min(until, now + std::chrono::milliseconds(100)));
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
