// The calls that the library passes on, and the records that some of them carry.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace virtual_reader {

using record = std::array<std::int16_t, 8>;
using configuration = std::array<record, 5>;

constexpr std::size_t led_record = 4;

struct record_kind {
  const char* name;
  const char* fields[8];
  record factory_default;
};
extern const std::array<record_kind, 5> record_kinds;

configuration factory_defaults();

enum class yields { nothing, status, number, text };

struct call_kind {
  const char* name;
  std::size_t arguments;  // as the agent gave them
  std::size_t extras;     // what the library adds from its own state
  yields result;
};

// Null for a name that is no call's.
const call_kind* find_call(const std::string& name);
// All names, with a blank between them.
std::string call_names(bool that_can_fail);

}  // namespace virtual_reader
