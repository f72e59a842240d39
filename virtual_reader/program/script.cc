#include "script.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

#include "tokens.h"
#include "verbs.h"

namespace virtual_reader {

namespace {

// Runs something; what goes wrong is reported.
template <typename F>
bool run_reported(const F& run, const std::string& place, const report_function& report) try {
  run();
  return true;
} catch (const syntax_error& error) {
  report(place + error.what() + "\n");
  return false;
} catch (const failed_expectation& failure) {
  report(place + failure.text());
  return false;
}

}  // namespace

bool run_line(const session& session, const std::string& line, const std::string& place,
              const report_function& report) {
  return run_reported([&] { session.execute(line); }, place, report);
}

script::script(const std::string& file_path) : path(file_path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::stringstream rest;
  if (!file || (file.peek() != EOF && !(rest << file.rdbuf())) || errno == EISDIR) {
    throw std::runtime_error("cannot read " + path + ": " + std::generic_category().message(errno));
  }
  for (std::string line; std::getline(rest, line);) lines.push_back(line);
}

bool script::check(bool has_command, const report_function& report) const {
  bool is_right = true, can_wait = false, has_verb = !has_command;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string where = path + ":" + std::to_string(i + 1) + ": ";
    has_verb |= !run_reported(
        [&] {
          const std::string& line = lines[i];
          if (i == 0 && line.rfind("\xEF\xBB\xBF", 0) == 0) {
            throw syntax_error("byte order mark; save the file as UTF-8 without one");
          }
          if (i == 0 && !line.empty() && line.back() == '\r') {
            throw syntax_error("line ends with CR LF; save the file with LF line endings");
          }
          const command parsed = parse(line);
          can_wait |= parsed.waits;
          has_verb |= parsed.what != nullptr;
          if (is_verb(parsed, "loop") && !can_wait) {
            throw syntax_error("`loop` needs an earlier `wait`, or the script would never pause");
          }
          if (is_verb(parsed, "send") && !has_command) {
            throw syntax_error("`send` needs a COMMAND: virtual-reader SCRIPT -- COMMAND");
          }
        },
        where,
        [&](const std::string& message) {
          is_right = false;
          report(message);
        });
  }
  if (!has_verb) report(path + " contains no verbs; nothing to test\n");
  return is_right && has_verb;
}

std::set<std::string> script::effects() const {
  std::vector<command> all;
  for (const std::string& line : lines) all.push_back(parse(line));
  return named_effects(all);
}

bool script::play(const session& session, const manner& how) {
  bool is_well = true, has_waited = false;
  std::uint64_t rounds = 0;
  for (std::size_t next = 0; next < lines.size();) {
    const std::string& line = lines[next];
    const command parsed = parse(line);
    if (parsed.what && how.is_over()) throw cancelled();
    number = ++next;
    if (is_verb(parsed, "loop")) {
      if (parsed.loops == 0 || ++rounds < parsed.loops) next = 0;
      continue;
    }
    const bool waits = parsed.waits || is_verb(parsed, "expect") || is_verb(parsed, "send");
    if (waits && !std::exchange(has_waited, true)) how.before_waiting();
    const bool has_held = run_line(session, line, place() + ": ", how.report);
    is_well &= has_held;
    if (!is_well && !how.should_keep_going) return false;
  }
  if (!has_waited) how.before_waiting();
  const auto end_step = [&] { session.expected.end_step(session.callbacks.is_interrupted); };
  return run_reported(end_step, place() + ": ", how.report) && is_well;
}

}  // namespace virtual_reader
