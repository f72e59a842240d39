// Lines of verbs, calls and events, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "quoted.h"

namespace virtual_reader {

// In bytes. Long enough for a text of a million, all of it escapes.
constexpr std::size_t longest_line = std::size_t{4} << 20;

// "; did you mean 'X'?" with the most similar of them, or nothing if none is.
std::string suggestion(const std::string& written, const std::vector<std::string>& known);
// "expected A, B or C, got 'X'; did you mean 'B'?"
std::string wrong_choice(const std::string& written, const std::vector<std::string>& known);

// The tokens of a line, taken one after the other. Tokens are separated by spaces; `#` begins a
// comment; one in double quotes may hold spaces and C escapes. Members throw syntax_error when what
// they take is missing or another, without text if the verb's syntax says it all.
class tokens {
 public:
  explicit tokens(std::string whole_line);

  bool at_end() const { return next.kind == token::end; }
  void take_end() const;
  bool is_next(const std::string& keyword) const {
    return next.kind == token::plain && next.text == keyword;
  }
  bool is_number() const;
  bool is_quoted() const { return next.kind == token::in_quotes; }
  bool take_if(const std::string& keyword);
  std::string take();  // whatever is next, if it is not in quotes
  std::string take_quoted();
  std::string take_one_of(const std::vector<std::string>& known);
  // Decimal, or hexadecimal after 0x.
  std::int64_t take_number(std::int64_t least, std::int64_t most);
  std::vector<std::int64_t> take_numbers();  // as many decimal ones as follow
  std::string take_call();
  // All that is left as it is written, comments too, without the spaces around it.
  std::string take_rest();

 private:
  struct token {
    enum { end, plain, in_quotes } kind;
    std::string text;
    std::size_t start;
  };
  token read(std::size_t from);
  token pop();

  std::string line;
  std::size_t place = 0;  // behind the next token
  token next;
};

}  // namespace virtual_reader
