// The language in which a virtual reader is told what to do. The program and the tests speak it.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "device.h"
#include "words.h"

namespace virtual_reader {

// For one thread. It only uses the device, which others may use at the same time.
class verbs {
 public:
  using print_function = std::function<void(const std::string& line)>;

  verbs(device& told, print_function print_line) : reader(told), print(std::move(print_line)) {}

  // Carries out one line. Returns nothing, or one line that says what is wrong with it and what
  // would be right; then nothing has changed. Takes long only for `wait` and `expect`.
  std::string run(const std::string& line);

  bool quit_requested() const { return quit; }
  bool expectations_held() const { return held; }

 private:
  using words = std::vector<word>;
  struct verb;
  static const std::vector<verb> all;

  std::string part(const words& given);
  std::string card(const words& given);
  std::string set_rule(const words& given);
  std::string calls(const words& given);
  std::string trace(const words& given);
  std::string wait(const words& given);
  std::string expect(const words& given);
  std::string plain(const words& given);
  void show();
  void config();

  device& reader;
  const print_function print;
  std::map<std::string, std::uint64_t> expected;  // calls that were waited for, by name
  bool quit = false;
  bool held = true;
};

}  // namespace virtual_reader
