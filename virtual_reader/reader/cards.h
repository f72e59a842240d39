// Cards as the reader fetches them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace virtual_reader {

struct card_id {
  std::array<std::int64_t, 33> values{};  // its 32 bytes, the least significant first, and its bits
  std::string text;                       // as the verbs have it: "3AB1234/26" or "raw 26 52 18"
};

// The card of a right text.
card_id card_of(const std::string& text);

}  // namespace virtual_reader
