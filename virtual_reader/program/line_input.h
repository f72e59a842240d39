// Lines of standard input.
#pragma once

#include <optional>
#include <string>

#include "cancellation.h"

namespace virtual_reader {

// For one thread; another one may cancel it.
class line_input {
 public:
  // Of lines that are longer, the rest is left out, and one byte more than that is returned.
  explicit line_input(std::size_t longest_of_all) : longest(longest_of_all) {}

  // The next line, without its newline; nothing at the end of input, or if cancelled.
  std::optional<std::string> next_line();
  void cancel() { ending.cancel(); }

 private:
  const std::size_t longest;
  cancellation ending;
  std::string block;     // what was read last
  std::size_t used = 0;  // of it
};

}  // namespace virtual_reader
