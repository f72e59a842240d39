#include "record.h"

#include <algorithm>

namespace virtual_reader {

namespace {

std::size_t bytes_of(const record::entry& e) { return sizeof e + e.text.capacity(); }

}  // namespace

void record::add(int agent, std::string text, bool is_idle) {
  if (text.size() > longest) text = text.substr(0, longest) + " ...";
  const std::lock_guard<std::mutex> lock(mutex);
  ++next;
  const bool is_same = !entries.empty() && entries.back().agent == agent &&
                       entries.back().is_idle == is_idle && entries.back().text == text;
  if (is_same) {
    ++entries.back().count;
  } else {
    entry added;
    added.time = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - beginning);
    added.agent = agent;
    added.text = std::move(text);
    added.number = next - 1;
    added.is_idle = is_idle;
    bytes += bytes_of(added);
    entries.push_back(std::move(added));
  }
  for (; bytes > limit && entries.size() > 1; entries.pop_front()) {
    bytes -= bytes_of(entries.front());
  }
  changed.notify_all();
}

std::uint64_t record::end() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return next;
}

std::vector<record::entry> record::read(std::uint64_t from) const {
  constexpr std::size_t piece = 65536;
  const std::lock_guard<std::mutex> lock(mutex);
  auto place = std::partition_point(entries.begin(), entries.end(),
                                    [&](const entry& e) { return e.end() <= from; });
  std::vector<entry> found;
  for (std::size_t size = 0; place != entries.end() && size < piece; ++place) {
    found.push_back(*place);
    size += bytes_of(*place);
  }
  if (!found.empty() && found.front().number < from) {
    found.front().count = found.front().end() - from;
    found.front().number = from;
  }
  return found;
}

std::vector<record::entry> record::last(std::size_t most,
                                        const std::function<bool(const entry&)>& wanted) const {
  std::vector<entry> found;
  const std::lock_guard<std::mutex> lock(mutex);
  for (auto place = entries.rbegin(); place != entries.rend() && found.size() < most; ++place) {
    if (wanted(*place)) found.push_back(*place);
  }
  std::reverse(found.begin(), found.end());
  return found;
}

bool record::wait(std::uint64_t number, std::chrono::steady_clock::time_point until,
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

void record::wake() const {
  const std::lock_guard<std::mutex> lock(mutex);
  ++wakes;
  changed.notify_all();
}

}  // namespace virtual_reader
