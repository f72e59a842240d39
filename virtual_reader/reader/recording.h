// What was recorded of a reader library, call by call.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "call.h"
#include "reader.h"

namespace virtual_reader {

// A call, with all that its answer needs, wherever in the recording that stands.
struct recorded_call : call {
  std::chrono::microseconds ended{0};  // since the recording began
  std::vector<says> said;              // while it lasted
  std::optional<card_id> card;         // GetQueuedID: what it fetched
  std::optional<std::string> part;     // usbConnect: the part number, null if missing
  std::map<std::size_t, std::array<std::int16_t, 8>>
      records;             // ReadCfg: what the Gets gave, by place
  std::int64_t error = 1;  // failed: what GetLastLibErr said then

  // One that has not ended never returned, and is the last.
  bool is_poll() const { return name == "GetQueuedID"; }
  // A poll that found nothing.
  bool is_idle() const { return is_poll() && has_ended && !card && !has_failed() && said.empty(); }
};

// All calls but GetQueuedID_index, which is part of the call before it. A recording that was cut
// off in a line ends before it. Throws std::runtime_error with one line, which begins with the
// name.
std::vector<recorded_call> read_recording(std::istream& recording, const std::string& name);
std::vector<recorded_call> read_recording(const std::string& path);

}  // namespace virtual_reader
