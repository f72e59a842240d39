#include "cards.h"

#include <algorithm>

namespace virtual_reader {

card_id take_card(tokens& from) {
  const std::string text = from.take();
  const std::size_t size = std::min(text.find('/'), text.size());
  if (size < 1 || size > 64 || text.find_first_not_of("0123456789ABCDEFabcdef") < size) {
    throw syntax_error("expected 1 to 64 hexadecimal digits, like 3AB1234/26, got '" + text + "'");
  }
  card_id id;
  id.values.back() = 4 * static_cast<std::int64_t>(size);
  if (size < text.size()) id.values.back() = tokens(text.substr(size + 1)).take_number(1, 256);
  for (std::size_t place = 0; place < size; ++place) {
    const std::int64_t digit = std::stoi(text.substr(size - 1 - place, 1), nullptr, 16);
    id.values[place / 2] |= digit << (place % 2 * 4);
  }
  if (to_text(id)[0] == 'r') throw syntax_error("'" + text + "' does not fit in its bits");
  return id;
}

card_id take_raw_card(tokens& from) {
  card_id id;
  id.values.back() = from.take_number(INT64_MIN, INT64_MAX);
  std::size_t count = 0;
  do {
    id.values[count] = from.take_number(INT64_MIN, INT64_MAX);
  } while (++count < 32 && !from.at_end());
  return id;
}

std::string to_text(const card_id& id) {
  const std::int64_t bits = id.values.back();
  bool is_whole = bits >= 1 && bits <= 256;
  for (std::int64_t i = 0; is_whole && i < 32; ++i) {
    const std::int64_t own_bits = std::clamp<std::int64_t>(bits - 8 * i, 0, 8);
    const std::int64_t value = id.values[static_cast<std::size_t>(i)];
    is_whole = value >= 0 && value < std::int64_t{1} << own_bits;
  }
  std::string text;
  if (is_whole) {
    for (auto i = static_cast<std::size_t>(bits + 3) / 4; i-- > 0;) {
      text += "0123456789ABCDEF"[id.values[i / 2] >> i % 2 * 4 & 15];
    }
    return text + "/" + std::to_string(bits);
  }
  std::size_t last = 31;
  while (last > 0 && id.values[last] == 0) --last;
  text = "raw " + std::to_string(bits);
  for (std::size_t i = 0; i <= last; ++i) text += " " + std::to_string(id.values[i]);
  return text;
}

}  // namespace virtual_reader
