// Lines of a file, pipe or terminal, until a signal comes.
#pragma once

#include <optional>
#include <string>

class line_source {
 public:
  // Reads from the first descriptor; stops as soon as the second is readable.
  line_source(int from, int until) : input(from), stop(until) {}

  // The next line without its line feed; nothing at the end.
  std::optional<std::string> next();

 private:
  const int input, stop;
  std::string pending;
  bool ended = false;
};

// Waits until one of the descriptors can be read, and tells whether the first can; -1 is none.
bool first_readable(int first, int second);
