#include "event_log.h"

#include <algorithm>

namespace virtual_reader {

namespace {

std::size_t bytes_of(const event& e) { return sizeof e + e.text.capacity(); }

}  // namespace

void event_log::add(int agent, std::string text, bool is_idle) {
  if (text.size() > longest_event) text = text.substr(0, longest_event) + " ...";
  const std::lock_guard<std::mutex> lock(mutex);
  ++next;
  const bool is_same = !events.empty() && events.back().agent == agent &&
                       events.back().is_idle == is_idle && events.back().text == text;
  if (is_same) {
    ++events.back().count;
  } else {
    virtual_reader::event added;
    added.time = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - beginning);
    added.agent = agent;
    added.text = std::move(text);
    added.number = next - 1;
    added.is_idle = is_idle;
    bytes += bytes_of(added);
    events.push_back(std::move(added));
  }
  for (; bytes > limit && events.size() > 1; events.pop_front()) {
    bytes -= bytes_of(events.front());
  }
  changed.notify_all();
}

std::uint64_t event_log::end() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return next;
}

std::vector<event> event_log::read(std::uint64_t from) const {
  constexpr std::size_t piece = 65536;
  const std::lock_guard<std::mutex> lock(mutex);
  auto place = std::partition_point(events.begin(), events.end(),
                                    [&](const event& e) { return e.end() <= from; });
  std::vector<event> found;
  for (std::size_t size = 0; place != events.end() && size < piece; ++place) {
    found.push_back(*place);
    size += bytes_of(*place);
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
    if (wanted(*place)) found.push_back(*place);
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
