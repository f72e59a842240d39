#include "line_reader.h"

#include <cstring>

#include "standard_streams.h"

bool line_reader::next(std::string_view* line) {
  if (is_line_rejected) skip_rest_of_line();
  is_line_rejected = false;
  std::size_t length = 0;
  while (!ended) {
    if (position == block_end && !fill()) {
      is_line_rejected = !ended;
      break;
    }
    const auto available = static_cast<std::size_t>(block_end - position);
    const auto* const newline = static_cast<const char*>(std::memchr(position, '\n', available));
    const std::size_t count = newline ? static_cast<std::size_t>(newline - position) : available;
    if (count > most_characters - length) {
      is_line_rejected = true;
      break;
    }
    std::memcpy(buffer + length, position, count);
    length += count;
    position += count;
    if (newline) {
      ++position;
      break;
    }
  }
  *line = {buffer, length};
  return !is_line_rejected;
}

// Reads the next block. Returns false at the end of input, when it sets `ended`, and after an
// error.
bool line_reader::fill() {
  std::size_t length = 0;
  const input_status status = read_input(block, sizeof block, &length);
  position = block;
  block_end = block + length;
  ended = status == input_status::end;
  return status == input_status::data;
}

void line_reader::skip_rest_of_line() {
  for (;;) {
    if (position == block_end && !fill()) {
      // Either the end, or an error twice in a row, which may never go away.
      ended = true;
      return;
    }
    const auto available = static_cast<std::size_t>(block_end - position);
    const auto* const newline = static_cast<const char*>(std::memchr(position, '\n', available));
    position = newline ? newline + 1 : block_end;
    if (newline) return;
  }
}
