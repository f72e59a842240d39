// Lines of verbs, one after the other.
#pragma once

#include <atomic>
#include <functional>
#include <istream>
#include <string>
#include <vector>

#include "session.h"

namespace virtual_reader {

using report_function = std::function<void(const std::string& lines)>;

// Reads a line, without its line feed. False at the end. Of one that is too long it takes one byte
// more than there may be, and leaves the rest.
bool read_line(std::istream& from, std::string* line);

// Carries out a line. What goes wrong is reported, after `place`, and then it returns false. Throws
// cancelled.
bool carry_out(const session& with, const std::string& line, const std::string& place,
               const report_function& report);

// A file of verbs, whole.
class script {
 public:
  // Throws std::runtime_error with one line when it cannot be read.
  explicit script(const std::string& path);
  script(script&& other) noexcept : path(other.path), lines(std::move(other.lines)) {}

  // Reports every line that is wrong, and if no line would test the host. True if all is well.
  bool check(bool has_host, const report_function& report) const;

  struct manner {
    bool keeps_going;                      // after a line that went wrong
    std::function<void()> before_waiting;  // called before the first line that waits for agents
    std::function<bool()> is_over;         // asked before each line
    report_function report;
  };
  // Plays it to its end, or to the first line that goes wrong. False if anything has gone wrong;
  // throws cancelled.
  bool play(const session& with, const manner& how);

  // FILE:LINE of the line that is carried out, or was last; from any thread.
  std::string place() const { return path + ":" + std::to_string(number); }

 private:
  const std::string path;
  std::vector<std::string> lines;
  std::atomic<std::size_t> number{1};
};

}  // namespace virtual_reader
