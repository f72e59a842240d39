// A card's ID as the reader hands it out.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace virtual_reader {

struct card_id {
  std::array<std::int64_t, 32> values{};  // its bytes, the least significant first
  std::int64_t bits = 0;
};

// In the notation of the verbs: "3AB1234/26", or "raw BITS VALUE ..." for what no card has.
std::string to_text(const card_id&);

// Reads HEX or HEX/BITS. Returns what is wrong with it, or nothing.
std::string parse_card(const std::string& text, card_id* id);

}  // namespace virtual_reader
