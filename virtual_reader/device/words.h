// Lines of the verb language, taken apart.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace virtual_reader {

// One line that says what is wrong; without text when the verb's syntax says it all.
struct bad_line : std::runtime_error {
  using runtime_error::runtime_error;
};

// Any signed 64-bit number, decimal or after 0x; false if the text is none.
bool parse_integer(const std::string& text, std::int64_t* number);

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
  std::string take();  // whatever is next, if it is not in quotes
  std::string take_quoted();
  std::int64_t take_number(std::int64_t least, std::int64_t most);
  bool take_if(const char* keyword);  // true if it was next
  bool number_is_next() const;
  void take_end() const;

 private:
  struct word {
    std::string text;
    bool quoted;
  };
  std::string take(bool quoted);

  std::vector<word> all;
  std::size_t next = 0;
};

}  // namespace virtual_reader
