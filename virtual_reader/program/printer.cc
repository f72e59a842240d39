#include "printer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <utility>

namespace virtual_reader {

namespace {

constexpr std::size_t most_bytes = 1 << 20;  // of pieces that wait

bool begins_with_one_of(const std::string& text, const std::vector<std::string>& starts) {
  return std::any_of(starts.begin(), starts.end(),
                     [&](const std::string& start) { return text.rfind(start, 0) == 0; });
}

std::string colored(const std::string& text) {
  static const std::map<std::string, std::string> colors = {{"led red", "31"},
                                                            {"led green", "32"},
                                                            {"led amber", "33"},
                                                            {"led off", "90"},
                                                            {"led auto", "90"}};
  const auto color = colors.find(text);
  return color == colors.end() ? text : "\x1b[" + color->second + "m\u25CF\x1b[0m " + text;
}

// Beside another program's lines, the reader's are marked and dim.
std::string marked(const std::string& text) {
  const std::string bar = "\x1b[2m  reader \u2502 ", plain = "\x1b[0m";
  const std::string shown = colored(text);
  return shown == text ? bar + text + plain : bar + plain + shown;
}

}  // namespace

printer::format_function choose_format(int descriptor, bool is_alone) {
  const char* const no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  const bool is_plain = !isatty(descriptor) || (no_color && *no_color);
  if (is_plain) return [](const std::string& text) { return text; };
  return is_alone ? colored : marked;
}

printer::printer(const event_log& printed, channel where, sink_function takes_lines,
                 format_function formats)
    : log(printed),
      event_channel(where),
      sink(std::move(takes_lines)),
      format(std::move(formats)),
      worker([this] { run(); }) {}

printer::~printer() {
  std::unique_lock<std::mutex> lock(mutex);
  is_ending = true;
  lock.unlock();
  log.wake();
  lock.lock();
  changed.wait_for(lock, std::chrono::seconds(2), [this] { return has_ended; });
  lock.unlock();
  ending.cancel();
  worker.join();
}

void printer::print(channel where, const std::string& lines) { push({log.end(), where, lines}); }

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

void printer::run() {
  for (;;) {
    std::unique_lock<std::mutex> lock(mutex);
    const bool is_last = is_ending;
    const std::size_t missing = pieces.empty() ? std::exchange(left_out, 0) : 0;
    std::optional<piece> due;
    if (!pieces.empty()) {
      due = std::move(pieces.front());
      pieces.pop_front();
      bytes -= sizeof *due + due->lines.size();
    }
    lock.unlock();
    print_events(due ? due->place : log.end());
    if (due && !due->lines.empty()) sink(due->where, due->lines, ending);
    if (due && due->traced) traced = *due->traced;
    if (missing > 0) {
      sink(channel::error, "(" + std::to_string(missing) + " answers were left out)\n", ending);
    }
    if (due) continue;
    if (lost > 0) sink(event_channel, lost_line(), ending);
    if (is_last) break;
    log.wait(next, never, [this] {
      const std::lock_guard<std::mutex> asking(mutex);
      return is_ending || !pieces.empty();
    });
  }
  const std::lock_guard<std::mutex> lock(mutex);
  has_ended = true;
  changed.notify_all();
}

// Empty if nothing was lost since.
std::string printer::lost_line() {
  const std::uint64_t count = std::exchange(lost, 0);
  return count == 0 ? "" : "(" + std::to_string(count) + " entries were left out)\n";
}

void printer::print_events(std::uint64_t before) {
  while (next < before) {
    std::string lines;
    for (const event& each : log.read(next)) {
      const std::uint64_t known = std::min(each.number, before);
      lost += known - std::min(next, known);
      next = std::max(next, known);
      if (next >= before) break;
      lines += lost_line();
      next = each.end();
      if (!is_wanted(each)) continue;
      const std::string times = " (" + std::to_string(each.count) + " times)";
      lines += format(each.text) + (each.count > 1 ? times : "") + "\n";
    }
    if (!lines.empty()) sink(event_channel, lines, ending);
  }
}

bool printer::is_wanted(const event& each) const {
  static const std::vector<std::string> effects = {
      "agent refused", "beep", "card",       "config", "connected", "disconnected", "sent",
      "input ended",   "led",  "plugged in", "replay", "reset",     "unplugged"};
  static const std::vector<std::string> calls = {"enter ", "call ", "says "};
  return begins_with_one_of(each.text, effects) ||
         (traced != tracing::off && !(each.is_idle && traced == tracing::quiet) &&
          begins_with_one_of(each.text, calls));
}

}  // namespace virtual_reader
