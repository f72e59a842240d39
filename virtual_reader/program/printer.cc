#include "printer.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

namespace virtual_reader {

namespace {

bool begins_with_one_of(const std::string& text, const std::vector<std::string>& starts) {
  return std::any_of(starts.begin(), starts.end(),
                     [&](const std::string& start) { return text.rfind(start, 0) == 0; });
}

int descriptor_of(printer::channel where) {
  return where == printer::channel::output ? STDOUT_FILENO : STDERR_FILENO;
}

}  // namespace

printer::printer(const event_log& printed, channel where, bool is_alone)
    : log(printed),
      event_channel(where),
      mark(!is_alone && isatty(descriptor_of(where)) ? "  reader | " : ""),
      follower(log, [this] { print(event_channel, ""); }) {}

printer::~printer() {
  if (!follower.end(std::chrono::seconds(2))) ending.cancel();
}

void printer::print(channel where, const std::string& lines) {
  const std::lock_guard<std::mutex> lock(mutex);
  print_events();
  write(where, lines);
}

void printer::write(channel where, const std::string& lines) {
  ending.write_all(descriptor_of(where), lines);
}

void printer::print_events() {
  for (const std::uint64_t end = log.end(); next < end && !ending.is_cancelled();) {
    std::string lines;
    for (const event& each : log.read(next)) {
      if (each.number > next) {
        lines += "(" + std::to_string(each.number - next) + " entries were left out)\n";
      }
      next = each.end();
      if (!is_wanted(each.text, each.is_idle)) continue;
      const std::string times = " (" + std::to_string(each.count) + " times)";
      lines += mark + each.text + (each.count > 1 ? times : "") + "\n";
    }
    write(event_channel, lines);
  }
}

bool printer::is_wanted(const std::string& text, bool is_idle) const {
  static const std::vector<std::string> effects = {
      "agent refused", "beep", "card",       "config", "connected", "disconnected", "sent",
      "input ended",   "led",  "plugged in", "replay", "reset",     "unplugged"};
  static const std::vector<std::string> calls = {"enter ", "call ", "says "};
  const tracing wanted = traced;
  return begins_with_one_of(text, effects) ||
         (wanted != tracing::off && !(is_idle && wanted == tracing::quiet) &&
          begins_with_one_of(text, calls));
}

}  // namespace virtual_reader
