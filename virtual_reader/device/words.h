// Lines of the verb language, taken apart.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "device.h"

namespace virtual_reader {

// One line that says what is wrong; without text when the verb's syntax says it all.
struct bad_line : std::runtime_error {
  using runtime_error::runtime_error;
};

// The text in quotes, with escapes wherever it needs them.
std::string quoted(const std::string& text);

// The words of a line, taken one after the other. All members that take a word throw bad_line when
// it is missing or another one.
class words {
 public:
  // Splits the line at blanks, up to a word that begins with '#'. A word in double quotes may hold
  // blanks and C escapes. Throws bad_line.
  explicit words(const std::string& line);

  bool at_end() const { return next == all.size(); }
  void take_end() const;
  bool is_next(const std::string& keyword) const { return !at_end() && all[next] == keyword; }
  bool take_if(const std::string& keyword) { return is_next(keyword) && ++next; }
  std::string take();  // whatever is next, if it is not in quotes
  std::string take_quoted();
  // Decimal, or hexadecimal after 0x.
  std::int64_t take_number(std::int64_t least, std::int64_t most);
  card_id take_card();  // HEX or HEX/BITS
  std::string take_call();

 private:
  std::vector<std::string> all;  // those in quotes without the second one
  std::size_t next = 0;
};

}  // namespace virtual_reader
