#include "suite.h"

#include <cerrno>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <system_error>

#include "run.h"

namespace virtual_reader {

namespace {

void report(const std::string& line) { std::cerr << "virtual-reader: " + line + "\n"; }

// A file that is written whole, or the program fails; none without a path.
class output_file : public std::ofstream {
 public:
  explicit output_file(const std::string& file_path) : path(file_path) {
    if (path.empty()) return;
    open(path, std::ios::binary | std::ios::trunc);
    check();
  }
  void finish() {
    if (!is_open()) return;
    close();
    check();
  }

 private:
  void check() const {
    if (*this) return;
    throw std::runtime_error("cannot write " + path + ": " +
                             std::generic_category().message(errno));
  }
  const std::string path;
};

std::string escaped(const std::string& text) {
  static const std::map<char, std::string> escapes = {
      {'&', "&amp;"}, {'<', "&lt;"}, {'"', "&quot;"}, {'\n', "\n"}, {'\t', "\t"}};
  std::string result;
  for (const char c : text) {
    const auto escape = escapes.find(c);
    const bool is_control = static_cast<unsigned char>(c) < ' ';
    result += escape != escapes.end() ? escape->second : std::string(1, is_control ? '?' : c);
  }
  return result;
}

std::string junit_case(const std::string& name, const verdict& found, double seconds) {
  const std::string element = found.what == result::failed ? "failure" : "error";
  const std::string start = "  <testcase classname=\"virtual-reader\" name=\"" + escaped(name) +
                            "\" time=\"" + std::to_string(seconds) + "\"";
  if (found.what == result::passed) return start + "/>\n";
  return start + ">\n    <" + element + " message=\"" + escaped(found.text()) + "\">" +
         escaped(found.details) + "</" + element + ">\n  </testcase>\n";
}

}  // namespace

int run_suite(const options& options) {
  std::deque<script> scripts;
  for (const std::string& path : options.scripts) scripts.emplace_back(path);
  const bool has_command = !options.command.empty(), is_plural = scripts.size() > 1;
  bool is_right = true;
  for (const script& each : scripts) {
    is_right &= each.check(has_command || options.should_check,
                           [](const std::string& line) { std::cerr << line; });
  }
  if (!is_right && has_command) report("ERROR: nothing was run");
  if (!is_right || options.should_check) return is_right ? 0 : 2;
  std::vector<recorded_call> recording;
  if (!options.replay.empty()) recording = read_recording(options.replay);
  output_file events(options.events), junit(options.junit);

  block_signals();
  int status = 0;
  std::map<result, std::size_t> counts;
  std::string cases;
  for (std::size_t i = 0; i == 0 || i < scripts.size(); ++i) {
    script* const played = scripts.empty() ? nullptr : &scripts[i];
    const auto start = std::chrono::steady_clock::now();
    const verdict found = run(options, {played, recording, events.is_open() ? &events : nullptr});
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    if (played) cases += junit_case(played->path, found, time.count());
    ++counts[found.what];
    if (status == 0) status = found.exit_status();
    const bool is_interrupted = found.what == result::interrupted;
    if (has_command || is_plural || (found.what >= result::error && !is_interrupted)) {
      report((is_plural ? played->path + ": " : "") + found.text());
    }
    if (is_interrupted) break;
  }
  const std::string passed = std::to_string(counts[result::passed]);
  const std::size_t failed = counts[result::failed];
  if (is_plural) {
    report((status == 0 ? "PASSED: " : "FAILED: ") + passed + " of " +
           std::to_string(scripts.size()) + " scripts passed");
  }
  std::size_t all = 0;
  for (const auto& [what, count] : counts) all += count;
  junit << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuite name=\"virtual-reader\" tests=\""
        << all << "\" failures=\"" << failed << "\" errors=\""
        << all - failed - counts[result::passed] << "\">\n"
        << cases << "</testsuite>\n";
  junit.finish();
  events.finish();
  return status;
}

}  // namespace virtual_reader
