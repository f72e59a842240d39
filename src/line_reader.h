// Standard input, a line at a time.
#pragma once

#include <cstddef>
#include <string_view>

// Cuts standard input into lines. It allocates nothing, and holds one line and one block read
// ahead. Input thread.
class line_reader {
 public:
  static constexpr std::size_t most_characters = 1023;  // of a line, its line feed not counted

  // Reads the next line, without its line feed; the last one may lack it, and at the end of input
  // it is empty. The view is good until the next call. Returns false for a line that is too long or
  // could not be read, and skips the rest of it. A read error that lasts counts as the end of
  // input.
  bool next(std::string_view* line);

  // The end of input was reached: `next` has nothing more to give.
  bool at_end() const { return ended; }

 private:
  bool fill();
  void skip_rest_of_line();

  char buffer[most_characters + 1];
  char block[16 * 1024];
  const char* position = block;  // what is left of the block: from here to block_end
  const char* block_end = block;
  bool ended = false;
};
