// Events as JSON, for programs that read the event log.
#pragma once

#include <string>
#include <vector>

#include "event_log.h"

namespace virtual_reader {

// A text as a JSON string. Bytes that are not UTF-8 are taken for Latin-1: "\xE4" becomes "\u00E4".
std::string json_string(const std::string& text);

// Name and value of each field, the values as JSON.
using json_fields = std::vector<std::pair<std::string, std::string>>;
std::string json_object(const json_fields&);
std::string json_array(const std::vector<std::string>& values);

// One line: number, repeats, time, agent, kind, text, and the fields of its kind.
std::string to_json(const event&);
// Time, repeats and text of such a line. Throws an exception if it is none.
event parse_json_event(const std::string& line);

}  // namespace virtual_reader
