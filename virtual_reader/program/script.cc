#include "script.h"

#include <fstream>
#include <utility>

#include "tokens.h"
#include "verbs.h"

namespace virtual_reader {

bool read_line(std::istream& from, std::string* line) {
  line->clear();
  for (char c; line->size() <= longest_line && from.get(c) && c != '\n';) *line += c;
  return !line->empty() || from.good();
}

bool carry_out(const session& with, const std::string& line, const std::string& place,
               const report_function& report) try {
  with.execute(line);
  return true;
} catch (const syntax_error& error) {
  report(place + error.what() + "\n");
  return false;
} catch (const failed_expectation& failure) {
  report(place + failure.text());
  return false;
}

script::script(const std::string& file) : path(file) {
  std::ifstream input(path);
  std::string line;
  while (line.size() <= longest_line && read_line(input, &line)) lines.push_back(line);
  if (!input.eof() && line.size() <= longest_line) throw std::runtime_error("cannot read " + path);
}

bool script::check(bool has_host, const report_function& report) const {
  bool is_right = true, rests = false, tests = !has_host;
  for (std::size_t i = 0; i < lines.size(); ++i) try {
      const command told = parse(lines[i]);
      rests |= told.rests;
      tests |= told.what != nullptr;
      if (is_verb(told, "loop") && !rests) {
        throw syntax_error("without a `wait` before it, this would never rest");
      }
      if (is_verb(told, "send") && !has_host) {
        throw syntax_error(
            "there is no host to send it; right would be: virtual-reader FILE -- AGENT");
      }
    } catch (const syntax_error& error) {
      report(path + ":" + std::to_string(i + 1) + ": " + error.what() + "\n");
      is_right = false;
      tests = true;
    }
  if (!tests) report(path + " has no verb, so that nothing would be tested\n");
  return is_right && tests;
}

bool script::play(const session& with, const manner& how) {
  bool held = true, has_waited = false;
  for (std::size_t next = 0; next < lines.size() && !how.is_over();) {
    const std::string& line = lines[next];
    number = ++next;
    const command told = parse(line);
    if (is_verb(told, "loop")) {
      next = 0;
      continue;
    }
    const bool waits = told.rests || is_verb(told, "expect") || is_verb(told, "send");
    if (waits && !std::exchange(has_waited, true)) how.before_waiting();
    held &= carry_out(with, line, place() + ": ", how.report);
    if (!held && !how.keeps_going) return false;
  }
  if (!has_waited) how.before_waiting();
  return held;
}

}  // namespace virtual_reader
