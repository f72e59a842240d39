#include "cards.h"

#include <algorithm>
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

void card_queue::push(const std::string& card) {
  texts.insert(texts.end(), card.begin(), card.end());
  texts.push_back('\n');
  ++count;
}

void card_queue::append(const card_queue& other) {
  texts.insert(texts.end(), other.texts.begin(), other.texts.end());
  count += other.count;
}

std::string card_queue::pop() {
  const auto end = std::find(texts.begin(), texts.end(), '\n');
  const std::string card(texts.begin(), end);
  texts.erase(texts.begin(), end + 1);
  --count;
  return card;
}

std::vector<std::string> card_queue::first(std::size_t most) const {
  std::vector<std::string> found;
  for (auto place = texts.begin(); place != texts.end() && found.size() < most;) {
    const auto end = std::find(place, texts.end(), '\n');
    found.emplace_back(place, end);
    place = end + 1;
  }
  return found;
}

}  // namespace virtual_reader
