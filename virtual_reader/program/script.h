// Lines of verbs, one after the other.
#pragma once

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "session.h"

namespace virtual_reader {

using report_function = std::function<void(const std::string& lines)>;

// Runs a line. What goes wrong is reported, after `place`; returns false then. Throws cancelled.
bool run_line(const session& session, const std::string& line, const std::string& place,
              const report_function& report);

// A file of verbs, read whole.
class script {
 public:
  // Throws std::runtime_error with one line when it cannot be read.
  explicit script(const std::string& path);

  // Reports every line that is wrong, and if no line would test the command. True if all is well.
  bool check(bool has_command, const report_function& report) const;

  struct manner {
    bool should_keep_going;                // after a line that went wrong
    std::function<void()> before_waiting;  // called before the first line that waits
    std::function<bool()> is_over;         // asked before each verb
    report_function report;
  };
  // Plays it to its end, or to the first line that goes wrong. False if anything has gone wrong;
  // throws cancelled.
  bool play(const session& session, const manner& how);

  // The line that is run, or was last; from any thread.
  std::size_t line_number() const { return number; }
  std::string place() const { return path + ":" + std::to_string(number); }
  // The effects that it is strict about.
  std::set<std::string> effects() const;

  const std::string path;
  std::vector<std::string> lines;

 private:
  std::atomic<std::size_t> number{1};
};

}  // namespace virtual_reader
