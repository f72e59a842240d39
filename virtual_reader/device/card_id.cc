#include "card_id.h"

#include <algorithm>

#include "words.h"

namespace virtual_reader {

namespace {

const std::string digits = "0123456789ABCDEF";

unsigned digit_at(const card_id& id, std::size_t place) {
  return static_cast<unsigned>(id.values[place / 2]) >> (place % 2 * 4) & 0xF;
}

}  // namespace

std::string to_text(const card_id& id) {
  const bool plain = id.bits > 0 && id.bits <= 256 &&
                     std::all_of(id.values.begin(), id.values.end(),
                                 [](std::int64_t value) { return value >= 0 && value <= 0xFF; });
  std::string text;
  if (plain) {
    for (std::size_t place = 64; place-- > 0;) {
      if (!text.empty() || digit_at(id, place) != 0 || place * 4 < std::size_t(id.bits)) {
        text += digits[digit_at(id, place)];
      }
    }
    return text + "/" + std::to_string(id.bits);
  }
  text = "raw " + std::to_string(id.bits);
  std::size_t count = id.values.size();
  while (count > 0 && id.values[count - 1] == 0) --count;
  for (std::size_t i = 0; i < count; ++i) text += " " + std::to_string(id.values[i]);
  return text;
}

std::string parse_card(const std::string& text, card_id* id) {
  const std::size_t slash = text.find('/');
  const std::string hex = text.substr(0, slash);
  if (hex.empty() || hex.size() > 64) return "'" + text + "' has not 1 to 64 digits";
  card_id made;
  made.bits = 4 * static_cast<std::int64_t>(hex.size());
  if (slash != std::string::npos &&
      (!parse_integer(text.substr(slash + 1), &made.bits) || made.bits < 1 || made.bits > 256)) {
    return "'" + text + "' has not 1 to 256 bits";
  }
  for (std::size_t place = 0; place < hex.size(); ++place) {
    const char c = hex[hex.size() - 1 - place];
    const std::size_t digit = digits.find(c >= 'a' && c <= 'f' ? static_cast<char>(c - 32) : c);
    if (digit == std::string::npos) return "'" + text + "' is not hexadecimal, like 3AB1234/26";
    made.values[place / 2] |= static_cast<std::int64_t>(digit << (place % 2 * 4));
    const std::int64_t above = made.bits - 4 * static_cast<std::int64_t>(place);
    if (above < 4 && digit >> std::max<std::int64_t>(above, 0) != 0) {
      return "'" + text + "' does not fit in its bits";
    }
  }
  *id = made;
  return {};
}

}  // namespace virtual_reader
