// The language in which a virtual reader is told what to do. The program and the tests speak it.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "device.h"

namespace virtual_reader {

// For one thread. It only uses the device, which others may use at the same time.
class verbs {
 public:
  using print_function = std::function<void(const std::string& line)>;
  // Lets the next line be the first again; false if that can't be.
  using start_again_function = std::function<bool()>;

  verbs(device& told, print_function print_line, start_again_function start_lines_again = nullptr)
      : reader(told), print(std::move(print_line)), start_again(std::move(start_lines_again)) {}

  // Carries out one line. Returns nothing, or one line that says what is wrong with it and what
  // would be right; then nothing has changed. Takes long only for `wait` and `expect`.
  std::string run(const std::string& line);

  bool quit_requested() const { return quit; }
  bool expectations_held() const { return held; }

 private:
  struct verb;
  static const std::vector<verb> all;

  void show(const std::string& topic) const;
  void expect(bool came, const std::string& what);

  device& reader;
  const print_function print;
  const start_again_function start_again;
  std::map<std::string, std::uint64_t> expected;  // calls that were waited for, by name
  bool waited = false;                            // since the first line
  bool quit = false;
  bool held = true;
};

}  // namespace virtual_reader
