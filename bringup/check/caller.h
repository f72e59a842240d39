// The process that makes the library's calls for the check: what the library does to it, it does
// not do to whoever writes the report.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace bringup {

enum class function : std::int32_t {
#define READER_FUNCTION(name) name,
#include "reader_functions.inc"
#undef READER_FUNCTION
  getPartNumberString_read_again,  // the text of the last call once more, without a call
};
const char* name_of(function);

using record = std::array<unsigned char, 16>;
constexpr std::size_t guard_size = 64;  // bytes before and behind a record that nobody may write
using guarded_record = std::array<unsigned char, guard_size + sizeof(record) + guard_size>;

// Lays the record between guards; those of two fills that are even and odd differ in each byte.
guarded_record between_guards(const record&, unsigned fill);

// What is asked of the caller, and what it answers, as bytes: both ends are the same program.
struct request {
  function what;
  std::int16_t first, second;
  unsigned fill;
  record given;
};
struct answer {
  enum class kind { loaded, said, returned } what;
  bool other_thread, during_call, after_removal;  // said
  bool is_null;                     // returned, a text: it is none; loaded: it could not be
  std::int64_t result;              // returned: 0 where there is none; said: the length told
  std::int64_t nanoseconds;         // returned: how long the call took
  alignas(16) guarded_record area;  // returned: the record as it is now
  // Follows: loaded: the names of missing functions, or why it could not be loaded; said, returned:
  // the text.
  std::uint64_t text_size;
};

// Loads the library and carries out requests from the stream socket `descriptor` up to its end.
// Returns an exit status.
int make_calls(const char* library, int descriptor);

}  // namespace bringup
