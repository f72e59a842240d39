// Lines of the verb language, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "quoted.h"
#include "reader.h"

namespace virtual_reader {

// In bytes. Long enough for a text of a million, all of it escapes.
constexpr std::size_t longest_line = std::size_t{4} << 20;

// ", did you mean 'X'?" with the most similar of them, or nothing if none is.
std::string suggestion(const std::string& written, const std::vector<std::string>& known);

// The words of a line, taken one after the other. All members that take a word throw syntax_error
// when it is missing or another one, without text when the verb's syntax says it all.
class tokens {
 public:
  // Splits the line at blanks, up to a word that begins with '#'. A word in double quotes may hold
  // blanks and C escapes. Throws syntax_error.
  explicit tokens(const std::string& line);

  bool at_end() const { return next == all.size(); }
  std::size_t left() const { return all.size() - next; }
  void take_end() const;
  bool is_next(const std::string& keyword) const { return !at_end() && all[next] == keyword; }
  bool is_number() const { return !at_end() && all[next][0] >= '0' && all[next][0] <= '9'; }
  bool is_quoted() const { return !at_end() && all[next][0] == '"'; }
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
