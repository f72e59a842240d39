#include "printer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

namespace virtual_reader {

namespace {

bool begins_with_one_of(const std::string& text, const std::vector<std::string>& starts) {
  return std::any_of(starts.begin(), starts.end(),
                     [&](const std::string& start) { return text.rfind(start, 0) == 0; });
}

std::string plain(const std::string& text) { return text; }

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
  const std::string bar = "\x1b[2m  reader \u2502 ", end = "\x1b[0m";
  const std::string shown = colored(text);
  return shown == text ? bar + text + end : bar + end + shown;
}

int descriptor_of(printer::channel where) {
  return where == printer::channel::output ? STDOUT_FILENO : STDERR_FILENO;
}

auto choose_format(printer::channel where, bool is_alone) {
  const char* const no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  if (!isatty(descriptor_of(where)) || (no_color && *no_color)) return plain;
  return is_alone ? colored : marked;
}

}  // namespace

printer::printer(const event_log& printed, channel where, bool is_alone)
    : log(printed),
      event_channel(where),
      format(choose_format(where, is_alone)),
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
      lines += format(each.text) + (each.count > 1 ? times : "") + "\n";
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
