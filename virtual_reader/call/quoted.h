// Texts in double quotes, with C escapes: as verbs take them and the event log has them.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace virtual_reader {

// One line that says what is wrong with a text that was read.
struct syntax_error : std::runtime_error {
  using runtime_error::runtime_error;
};

// The text in quotes, with escapes wherever it needs them.
std::string quoted(const std::string& text);

// Reads the text that begins with the quote at `*place`, and moves behind the closing one. Throws
// syntax_error, also if the text has more than a million bytes.
std::string parse_quoted(const std::string& line, std::size_t* place);

// The line with its control characters as escapes.
std::string without_controls(const std::string& line);

// What a person sees of a line that a program printed: without color codes and a carriage return at
// its end, and with other control characters as escapes.
std::string plain_line(const std::string& line);

}  // namespace virtual_reader
