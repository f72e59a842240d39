// The language in which a virtual reader is told what to do. The program and the tests speak it.
#pragma once

#include <functional>
#include <map>
#include <string>

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
  struct verb;
  static const verb all[];

  void card(words& given, bool queued);
  void raw_card(words& given);
  void part(words& given);
  void add_rule(rule::kind what, words& given);
  void trace(words& given);
  void expect(words& given);
  void expect_cards(words& given);
  void fail(const std::string& why);
  void calls(words& given);
  void show();
  void help();

  device& reader;
  const print_function print;
  std::map<std::string, std::uint64_t> expected;  // calls that were waited for, by name
  bool quit = false;
  bool held = true;
};

}  // namespace virtual_reader
