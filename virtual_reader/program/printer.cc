#include "printer.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace virtual_reader {

namespace {

constexpr std::size_t most_bytes = 1 << 20;  // of pieces that wait

bool begins_with_one_of(const std::string& text, const std::vector<std::string>& starts) {
  return std::any_of(starts.begin(), starts.end(),
                     [&](const std::string& start) { return text.rfind(start, 0) == 0; });
}

}  // namespace

void write_all(int descriptor, const std::string& bytes) {
  for (std::size_t written = 0; written < bytes.size();) {
    const ssize_t count = write(descriptor, bytes.data() + written, bytes.size() - written);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count < 0 && errno == EAGAIN) {  // whoever shares it wants it so
      pollfd entry{descriptor, POLLOUT, 0};
      poll(&entry, 1, -1);
    } else if (count == 0 || errno != EINTR) {
      return;
    }
  }
}

printer::printer(const event_log& printed, channel of_entries, sink where, look_function look)
    : log(printed),
      entries_go(of_entries),
      put(std::move(where)),
      look_of(std::move(look)),
      worker([this] { print(); }) {}

void printer::say(channel where, const std::string& lines) { push({log.end(), where, lines}); }

void printer::trace(tracing wanted) { push({log.end(), channel::output, "", wanted}); }

void printer::push(const piece& pushed) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const std::size_t size = sizeof pushed + pushed.lines.size();
    if (bytes + size > most_bytes && !pieces.empty()) {
      ++left_out;
    } else {
      bytes += size;
      pieces.push_back(pushed);
    }
  }
  log.wake();
}

void printer::end(std::chrono::milliseconds limit) {
  if (!worker.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ending = true;
  }
  log.wake();
  std::unique_lock<std::mutex> lock(mutex);
  const bool in_time = changed.wait_for(lock, limit, [this] { return ended; });
  lock.unlock();
  in_time ? worker.join() : worker.detach();
}

void printer::print() {
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex);
    const bool is_last = ending;
    const std::size_t missing = pieces.empty() ? std::exchange(left_out, 0) : 0;
    std::optional<piece> due;
    if (!pieces.empty()) {
      due = std::move(pieces.front());
      pieces.pop_front();
      bytes -= sizeof *due + due->lines.size();
    }
    lock.unlock();
    print_entries(due ? due->place : log.end());
    if (due && !due->lines.empty()) put(due->where, due->lines);
    if (due && due->traced) traced = *due->traced;
    if (missing > 0) {
      put(channel::error, "(" + std::to_string(missing) + " answers were left out)\n");
    }
    if (due) continue;
    if (lost > 0) put(entries_go, lost_line());
    if (is_last) break;
    log.wait(next, std::chrono::steady_clock::time_point::max(), [this] {
      const std::lock_guard<std::mutex> asking(mutex);
      return ending || !pieces.empty();
    });
  }
  const std::lock_guard<std::mutex> lock(mutex);
  ended = true;
  changed.notify_all();
}

// Nothing if nothing was lost since.
std::string printer::lost_line() {
  const std::uint64_t count = std::exchange(lost, 0);
  return count == 0 ? "" : "(" + std::to_string(count) + " entries were left out)\n";
}

void printer::print_entries(std::uint64_t before) {
  while (next < before) {
    std::string lines;
    for (const auto& entry : log.read(next)) {
      const std::uint64_t known = std::min(entry.number, before);
      lost += known - std::min(next, known);
      next = std::max(next, known);
      if (next >= before) break;
      lines += lost_line();
      next = entry.end();
      if (!is_wanted(entry)) continue;
      const std::string times = " (" + std::to_string(entry.count) + " times)";
      lines += look_of(entry.text) + (entry.count > 1 ? times : "") + "\n";
    }
    if (!lines.empty()) put(entries_go, lines);
  }
}

bool printer::is_wanted(const event& entry) const {
  static const std::vector<std::string> effects = {
      "agent refused", "beep", "card",       "config", "connected", "disconnected", "sent",
      "input ended",   "led",  "plugged in", "replay", "reset",     "unplugged"};
  static const std::vector<std::string> calls = {"enter ", "call ", "says "};
  return begins_with_one_of(entry.text, effects) ||
         (traced != tracing::off && !(entry.is_idle && traced == tracing::quiet) &&
          begins_with_one_of(entry.text, calls));
}

}  // namespace virtual_reader
