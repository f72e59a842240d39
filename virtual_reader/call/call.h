// The library calls, as a device is asked for them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "wire.h"

namespace virtual_reader {

extern const std::vector<std::string> call_names;
bool is_call(const std::string& name);

// A call, and what comes of it.
struct call {
  int agent = 0;
  std::string name;
  std::int64_t kind = no_result, own_error = no_error;
  std::vector<std::int64_t> arguments, extras;
  message result{};      // the reply, but for its head
  bool is_idle = false;  // a poll that found nothing new
  std::chrono::steady_clock::time_point begun = std::chrono::steady_clock::now();
};

// As it came, nothing if it is none.
std::optional<call> parse_call(message given, int agent);

// As the record has it once it has ended.
std::string ended_text(const call& done, bool has_failed);
std::string begun_text(const call& begun);

}  // namespace virtual_reader
