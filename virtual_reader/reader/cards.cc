#include "cards.h"

#include <sstream>

namespace virtual_reader {

card_id card_of(const std::string& text) {
  card_id id;
  id.text = text;
  const std::size_t size = text.find('/');
  std::istringstream numbers(text.substr(text.find_first_of(" /") + 1));
  numbers >> id.values.back();
  if (size == text.npos) {
    for (std::size_t i = 0; i < 32 && numbers >> id.values[i];) ++i;
  } else {
    for (std::size_t place = 0; place < size; ++place) {
      const std::int64_t digit = std::stoi(text.substr(size - 1 - place, 1), nullptr, 16);
      id.values[place / 2] |= digit << (place % 2 * 4);
    }
  }
  return id;
}

}  // namespace virtual_reader
