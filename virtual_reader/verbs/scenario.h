// A recording as a scenario that a person can read and change.
#pragma once

#include <string>
#include <vector>

#include "event_log.h"
#include "recording.h"

namespace virtual_reader {

// Lines of verbs. The reader does what it did, and what the host made it do is expected.
std::vector<std::string> to_scenario(const std::vector<recorded_call>&);

// Of a session so far: verbs stay verbs, and each effect becomes an `expect`.
std::vector<std::string> to_scenario(const event_log&);

}  // namespace virtual_reader
