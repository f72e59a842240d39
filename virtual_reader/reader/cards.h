// Cards as the reader fetches them.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "tokens.h"

namespace virtual_reader {

struct card_id {
  std::array<std::int64_t, 33> values{};  // its 32 bytes, the least significant first, and its bits

  bool operator==(const card_id& other) const { return values == other.values; }
};

// HEX or HEX/BITS. Throws syntax_error.
card_id take_card(tokens& from);
// BITS VALUE ..., up to 32 values of any size. Throws syntax_error.
card_id take_raw_card(tokens& from);

// As the verbs take it: "3AB1234/26", or "raw 26 52 18" if its values are no such card.
std::string to_text(const card_id&);

}  // namespace virtual_reader
