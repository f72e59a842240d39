#include "line_reader.h"

#include <cstring>

#include "standard_streams.h"

bool line_reader::next(std::string_view* line) {
  std::size_t length = 0;
  for (;;) {
    if (position == block_end && !fill()) {
      if (!ended) {
        skip_rest_of_line();
        return false;
      }
      *line = {buffer, length};
      return true;
    }
    const auto available = static_cast<std::size_t>(block_end - position);
    const auto* const line_feed = static_cast<const char*>(std::memchr(position, '\n', available));
    const std::size_t count =
        line_feed ? static_cast<std::size_t>(line_feed - position) : available;
    if (count > most_characters - length) {
      skip_rest_of_line();
      return false;
    }
    std::memcpy(buffer + length, position, count);
    length += count;
    position += count;
    if (line_feed) {
      ++position;
      *line = {buffer, length};
      return true;
    }
  }
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
      // Either the end, or an error twice in a row: nobody can tell when it would go away.
      ended = true;
      return;
    }
    const auto available = static_cast<std::size_t>(block_end - position);
    const auto* const line_feed = static_cast<const char*>(std::memchr(position, '\n', available));
    position = line_feed ? line_feed + 1 : block_end;
    if (line_feed) return;
  }
}
