// Cards, and those that wait to be fetched.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace virtual_reader {

struct card_id {
  std::array<std::int64_t, 33> values{};  // its 32 bytes, the least significant first, and its bits
  std::string text;                       // as the verbs have it: "3AB1234/26" or "raw 26 52 18"
};

// The card of a right text.
card_id card_of(const std::string& text);

// The texts of cards, in their order. None takes more room than its text, so that there may be
// millions.
class card_queue {
 public:
  void push(const std::string& card);
  void append(const card_queue& other);
  std::string pop();  // there must be one
  std::size_t size() const { return count; }
  std::vector<std::string> first(std::size_t most) const;

 private:
  std::deque<char> texts;  // each with a line feed behind it
  std::size_t count = 0;
};

}  // namespace virtual_reader
