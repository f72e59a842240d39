// A session as a scenario that a person can read and change.
#pragma once

#include <string>
#include <vector>

#include "event_log.h"
#include "recording.h"

namespace virtual_reader {

// Lines of verbs. Verbs stay verbs, lines to the agent are sent, and what the application made of
// it is expected.
std::vector<std::string> to_scenario(const std::vector<event>&);

// The events of a reader that behaves as the recorded one, and of the verbs that make it do so.
std::vector<event> to_events(const std::vector<recorded_call>&);

// Of a file with a recording, or with events as JSON. Throws std::runtime_error with one line.
std::vector<event> read_events(const std::string& path);

}  // namespace virtual_reader
