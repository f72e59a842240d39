// Calls of the reader library and events as lines: the same on the wire, in the event log and in
// recordings. What is written can be read back.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

extern const std::vector<std::string> call_names;
bool is_call(const std::string& name);
enum class result_kind { none, status, number, text };
result_kind result_of(const std::string& call_name);

// What GetLastLibErr says. A fault may give any other.
enum error_number : std::int64_t {
  no_reader_connected = 1,
  no_configuration_read = 2,
  held_by_another_agent = 3,
};

// `call NAME ARGS -> RESULT VALUES (TIME ms)`, or `enter NAME ARGS` of one that has not returned.
struct call {
  std::string name{};
  std::vector<std::int64_t> arguments{};
  bool has_ended = true;
  bool has_result = false;             // an arrow follows
  bool has_text = false;               // its result is a text or null
  std::optional<std::string> text{};   // null if missing
  std::vector<std::int64_t> values{};  // the result if it is a number, and a record's fields
  std::optional<std::chrono::microseconds> took{};  // written if it is there

  bool has_failed() const {
    return name != "GetLastLibErr" && !has_text && !values.empty() && values[0] == 0;
  }
};
std::string to_text(const call&);
std::optional<call> parse_call(const std::string& line);

// The first line of a recording.
inline constexpr char recording_header[] = "# card reader recording 1";

// `says [thread] "TEXT" [length N]`: the marker function was called, during the call whose line
// follows.
struct says {
  std::string text;
  std::int64_t length = 0;  // as the agent gets it: an int, at most the text's
  bool own_thread = false;
};
std::string to_text(const says&);
std::optional<says> parse_says(const std::string& line);

// With so many digits behind the point: 1500 and 3 give "1.500".
std::string to_decimal(std::int64_t number, int digits);

// In bytes, of an event's text; what is more is cut off, which " ..." at the end says.
constexpr std::size_t longest_event = 65536;

// A line TIME AGENT KIND TEXT.
struct event_line {
  std::chrono::microseconds time{0};  // since the log began
  int agent = 0;                      // 0: it concerns none
  std::string text;                   // KIND and TEXT
};
std::string to_text(const event_line&);
std::optional<event_line> parse_event(const std::string& line);

}  // namespace virtual_reader
