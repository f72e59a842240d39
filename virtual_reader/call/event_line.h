// How what happens is written down, an entry a line: in the record, in what is printed of it, and
// in recordings of other libraries. Everything here can be read back.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

// In bytes, of an event's text; what is more is cut off, which " ..." at the end says.
constexpr std::size_t longest_event = 65536;

// A line TIME AGENT KIND TEXT.
struct event_line {
  std::chrono::microseconds time{0};  // since the record began
  int agent = 0;                      // 0: it concerns none
  std::string text;                   // KIND and TEXT
};
std::string to_text(const event_line&);
std::optional<event_line> parse_event(const std::string& line);

// `call NAME ARGS -> RESULT VALUES (TIME ms)`, or `enter NAME ARGS`.
struct call_text {
  std::string name;
  std::vector<std::int64_t> arguments;
  bool has_ended = true;             // it is a `call`; of one that begins nothing more is known
  bool has_result = false;           // an arrow follows
  bool has_text = false;             // its result is a text or null
  std::optional<std::string> text;   // null if missing
  std::vector<std::int64_t> values;  // the result if it is a number, and a record's fields
  std::optional<std::chrono::microseconds> took;  // written if it is there
};
std::string to_text(const call_text&);
std::optional<call_text> parse_call(const std::string& entry_text);

// `says [thread] "TEXT" [length N]`: the marker function was called, during the call whose entry
// follows.
struct says_text {
  std::string text;
  std::int64_t length = 0;  // as it was told; when it is read, an int and at most the text's
  bool own_thread = false;
};
std::string to_text(const says_text&);
std::optional<says_text> parse_says(const std::string& entry_text);

}  // namespace virtual_reader
