#include "suite.h"

#include <cerrno>
#include <cstdio>
#include <deque>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "run.h"
#include "run_end.h"
#include "script.h"

namespace virtual_reader {

namespace {

struct test_case {
  std::string name;
  verdict found;
  double seconds;
};

void report(const std::string& lines) { std::cerr << lines << std::flush; }

std::deque<script> read_scripts(const std::vector<std::string>& paths) {
  std::deque<script> scripts;
  for (const std::string& path : paths) scripts.emplace_back(path);
  return scripts;
}

bool are_right(const std::deque<script>& scripts, bool has_command) {
  bool is_right = true;
  for (const script& each : scripts) is_right &= each.check(has_command, report);
  return is_right;
}

// A file that is written to its end, or the program fails.
class output_file {
 public:
  explicit output_file(const std::string& file_path)
      : path(file_path), stream(path, std::ios::binary | std::ios::trunc) {
    if (!stream) fail();
  }
  void close() {
    stream.close();
    if (!stream) fail();
  }
  std::ostream* get() { return &stream; }

 private:
  [[noreturn]] void fail() const {
    throw std::runtime_error("cannot write " + path + ": " +
                             std::generic_category().message(errno));
  }
  const std::string path;
  std::ofstream stream;
};

std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const bool is_control = static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\t';
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '"') {
      result += "&quot;";
    } else {
      result += is_control ? '?' : c;
    }
  }
  return result;
}

void write_junit(std::ostream& to, const std::vector<test_case>& cases) {
  std::size_t failures = 0, errors = 0;
  for (const test_case& each : cases) {
    const bool has_failed = each.found.what == result::failed;
    failures += has_failed;
    errors += !has_failed && each.found.what != result::passed;
  }
  to << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"virtual-reader\" tests=\""
     << cases.size() << "\" failures=\"" << failures << "\" errors=\"" << errors << "\">\n";
  for (const test_case& each : cases) {
    to << "  <testcase classname=\"virtual-reader\" name=\"" << escaped(each.name) << "\" time=\""
       << each.seconds << "\"";
    if (each.found.what == result::passed) {
      to << "/>\n";
      continue;
    }
    const std::string element = each.found.what == result::failed ? "failure" : "error";
    to << ">\n    <" << element << " message=\"" << escaped(each.found.text()) << "\">"
       << escaped(each.found.details) << "</" << element << ">\n  </testcase>\n";
  }
  to << "</testsuite>\n";
}

}  // namespace

int check_scripts(const options& options) {
  return are_right(read_scripts(options.scripts), true) ? 0 : 2;
}

int run_suite(const options& options) {
  std::deque<script> scripts = read_scripts(options.scripts);
  const bool has_command = !options.command.empty(), is_plural = scripts.size() > 1;
  if (!are_right(scripts, has_command)) {
    if (has_command) report("virtual-reader: ERROR: nothing was run\n");
    return 2;
  }
  std::vector<recorded_call> recording;
  if (!options.replay.empty()) recording = read_recording(options.replay);
  std::optional<output_file> events, junit;
  if (!options.events.empty()) events.emplace(options.events);
  if (!options.junit.empty()) junit.emplace(options.junit);

  block_signals();
  std::vector<test_case> cases;
  for (std::size_t i = 0; i == 0 || i < scripts.size(); ++i) {
    script* const played = scripts.empty() ? nullptr : &scripts[i];
    const std::string name = played ? played->path : "";
    const auto start = std::chrono::steady_clock::now();
    const verdict found = run(options, {played, recording, events ? events->get() : nullptr});
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    cases.push_back({name, found, time.count()});
    const bool is_quiet = found.what == result::interrupted;
    if (has_command || is_plural || (found.what >= result::error && !is_quiet)) {
      report("virtual-reader: " + (is_plural ? name + ": " : "") + found.text() + "\n");
    }
    if (found.what == result::interrupted) break;
  }
  int status = 0;
  std::size_t passed = 0;
  for (const test_case& each : cases) {
    if (status == 0) status = each.found.exit_status();
    passed += each.found.what == result::passed;
  }
  if (is_plural) {
    report("virtual-reader: " + std::string(status == 0 ? "PASSED" : "FAILED") + ": " +
           std::to_string(passed) + " of " + std::to_string(scripts.size()) + " scripts passed\n");
  }
  if (junit) {
    write_junit(*junit->get(), cases);
    junit->close();
  }
  if (events) events->close();
  return status;
}

}  // namespace virtual_reader
