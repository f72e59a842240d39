// Standard input, a line at a time.
#pragma once

#include <cstddef>
#include <string_view>

// Cuts standard input into lines. Allocates nothing; holds one line and one block read ahead.
// Input thread.
class line_reader {
 public:
  static constexpr std::size_t most_characters = 1023;  // of a line, without its newline

  // Reads the next line, without its newline; the last one may lack it, and at the end of input it
  // is empty. The view is valid until the next call. Returns false for a line that is too long, as
  // soon as that is certain, or that cannot be read; the next call skips the rest of it. A read
  // error that persists counts as the end of input.
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
  bool is_line_rejected = false;  // the rest of it is still to be skipped
  bool ended = false;
};
