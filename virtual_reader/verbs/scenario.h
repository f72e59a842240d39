// A recording as a scenario that a person can read and change.
#pragma once

#include <string>
#include <vector>

#include "recording.h"

namespace virtual_reader {

// Lines of verbs. The reader does what it did, and what the host made it do is expected.
std::vector<std::string> to_scenario(const std::vector<recorded_call>&);

}  // namespace virtual_reader
