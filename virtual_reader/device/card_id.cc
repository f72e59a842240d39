#include "card_id.h"

#include <algorithm>

#include "words.h"

namespace virtual_reader {

namespace {

const std::string digits = "0123456789ABCDEF";

}  // namespace

std::string to_text(const card_id& id) {
  const auto is_byte = [](std::int64_t value) { return value >= 0 && value <= 0xFF; };
  std::string text;
  if (id.bits < 1 || id.bits > 256 || !std::all_of(id.values.begin(), id.values.end(), is_byte)) {
    for (const std::int64_t value : id.values) text += " " + std::to_string(value);
    while (text.size() > 2 && text.substr(text.size() - 2) == " 0") text.resize(text.size() - 2);
    return "raw " + std::to_string(id.bits) + text;
  }
  for (std::size_t place = 64; place-- > 0;) {
    const std::size_t digit =
        static_cast<std::size_t>(id.values[place / 2]) >> (place % 2 * 4) & 15;
    const bool leading = text.empty() && digit == 0;
    if (!leading || static_cast<std::int64_t>(4 * place) < id.bits) text += digits[digit];
  }
  return text + "/" + std::to_string(id.bits);
}

std::string parse_card(const std::string& text, card_id* id) {
  const std::size_t slash = text.find('/');
  const std::size_t size = std::min(slash, text.size());
  if (size < 1 || size > 64) return "'" + text + "' has not 1 to 64 digits";
  card_id made;
  made.bits = 4 * static_cast<std::int64_t>(size);
  if (slash != std::string::npos &&
      (!parse_integer(text.substr(slash + 1), &made.bits) || made.bits < 1 || made.bits > 256)) {
    return "'" + text + "' has not 1 to 256 bits";
  }
  for (std::size_t place = 0; place < size; ++place) {
    const char c = text[size - 1 - place];
    const std::size_t digit = digits.find(c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c);
    if (digit == std::string::npos) return "'" + text + "' is not hexadecimal, like 3AB1234/26";
    made.values[place / 2] |= static_cast<std::int64_t>(digit << (place % 2 * 4));
    const auto bits_left = std::max<std::int64_t>(made.bits - 4 * static_cast<int>(place), 0);
    if (bits_left < 4 && digit >> bits_left != 0) return "'" + text + "' does not fit in its bits";
  }
  *id = made;
  return {};
}

}  // namespace virtual_reader
