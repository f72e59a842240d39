// Lines of the verb language, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace virtual_reader {

struct word {
  std::string text;
  bool quoted = false;
};

// Splits a line at blanks, up to a word that begins with '#'. A word in double quotes may hold
// blanks and C escapes. Returns what is wrong with the line, or nothing.
std::string split_words(const std::string& line, std::vector<word>* words);

// Any signed 64-bit number, decimal or after 0x; false if the text is none.
bool parse_integer(const std::string& text, std::int64_t* number);

// The text in quotes, with escapes wherever it needs them.
std::string quoted(const std::string& text);

}  // namespace virtual_reader
