// The reader's configuration, as the library's records have it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

// The eight fields of each record, one record after the other.
using configuration = std::array<std::int16_t, 40>;

// Fields without a known meaning differ from 0 and from each other, so that it shows who loses one.
constexpr configuration factory_defaults = {1,   1,    104,  26,  108, 110, 112, 114,  //
                                            200, 0,    204,  206, 208, 210, 1,   0,    //
                                            20,  1000, 1000, 306, 308, 310, 312, 314,  //
                                            400, 402,  0,    0,   0,   1,   0,   414,  //
                                            0,   0,    0,    506, 508, 510, 512, 514};
constexpr std::size_t led_record = 32;  // where it begins

// Where the record begins that a call gets or sets; nothing if it is another call.
std::optional<std::size_t> record_of(const std::string& call);

// One text a record, TYPE.NAME=VALUE for each field, as applications write it; fields without a
// known meaning are reserved and their offset in bytes, and can be left out.
std::vector<std::string> to_text(const configuration&, bool with_reserved);

}  // namespace virtual_reader
