#include "call.h"

#include <algorithm>

#include "tokens.h"

namespace virtual_reader {

namespace {

// A decimal number of as many digits behind the point as there are to a microsecond.
std::chrono::microseconds to_time(const std::string& text, std::size_t digits) {
  constexpr std::int64_t longest = 1'000'000'000'000'000;  // so that no sum overflows
  const std::size_t point = text.find('.');
  const bool is_decimal = point != text.npos && point > 0 && text.size() - point - 1 == digits &&
                          text.find_first_not_of("0123456789.") == text.npos;
  if (!is_decimal) throw syntax_error("expected a time");
  tokens number(text.substr(0, point) + text.substr(point + 1));
  return std::chrono::microseconds(number.take_number(0, longest));
}

}  // namespace

const std::vector<std::string> call_names = {
    "SetMarkerFunction", "BeepNow",     "GetLastLibErr",       "SetLEDCtrl",
    "GetLEDCtrl",        "GetQueuedID", "GetQueuedID_index",   "USBDisconnect",
    "SetDevTypeSrch",    "usbConnect",  "getPartNumberString", "GetDevName",
    "ReadCfg",           "WriteCfg",    "GetIDBitCnts",        "SetIDBitCnts",
    "GetFlags",          "SetFlags",    "GetTimeParms",        "SetTimeParms",
    "GetFlags2",         "SetFlags2",   "ResetFactoryDflts"};

bool is_call(const std::string& name) {
  return std::find(call_names.begin(), call_names.end(), name) != call_names.end();
}

result_kind result_of(const std::string& name) {
  if (name == "SetMarkerFunction" || name == "USBDisconnect" || name == "SetDevTypeSrch") {
    return result_kind::none;
  }
  if (name == "GetLastLibErr" || name == "GetQueuedID_index") return result_kind::number;
  const bool is_text = name == "getPartNumberString" || name == "GetDevName";
  return is_text ? result_kind::text : result_kind::status;
}

std::string to_decimal(std::int64_t number, int digits) {
  std::string text = std::to_string(number);
  const auto least = static_cast<std::size_t>(digits) + 1;
  if (text.size() < least) text.insert(0, least - text.size(), '0');
  return text.insert(text.size() - static_cast<std::size_t>(digits), ".");
}

std::string to_text(const event_line& entry) {
  return to_decimal(entry.time.count(), 6) + " " +
         (entry.agent == 0 ? "-" : std::to_string(entry.agent)) + " " + entry.text;
}

std::optional<event_line> parse_event(const std::string& line) try {
  tokens left(line);
  event_line entry;
  entry.time = to_time(left.take(), 6);
  if (!left.take_if("-")) entry.agent = static_cast<int>(left.take_number(0, INT32_MAX));
  entry.text = left.take_rest();
  if (entry.text.empty()) return {};
  return entry;
} catch (const syntax_error&) {
  return {};
}

std::string to_text(const call& call) {
  std::string text = (call.has_ended ? "call " : "enter ") + call.name;
  const auto append = [&](const std::vector<std::int64_t>& numbers) {
    for (const std::int64_t number : numbers) text += " " + std::to_string(number);
  };
  append(call.arguments);
  if (call.has_result) text += " ->";
  if (call.has_text) text += " " + (call.text ? quoted(*call.text) : "null");
  append(call.values);
  if (call.took) text += " (" + to_decimal(call.took->count(), 3) + " ms)";
  return text;
}

std::optional<call> parse_call(const std::string& line) try {
  tokens left(line);
  virtual_reader::call call;
  call.has_ended = left.take_one_of({"call", "enter"}) == "call";
  call.name = left.take();
  call.arguments = left.take_numbers();
  call.has_result = left.take_if("->");
  if (call.has_result) {
    call.has_text = left.is_quoted() || left.is_next("null");
    if (left.is_quoted()) call.text = left.take_quoted();
    left.take_if("null");
    call.values = left.take_numbers();
  }
  if (!left.at_end()) {
    const std::string time = left.take();
    if (time[0] != '(' || !left.take_if("ms)")) return {};
    call.took = to_time(time.substr(1), 3);
  }
  left.take_end();
  return call;
} catch (const syntax_error&) {
  return {};
}

std::string to_text(const says& said) {
  std::string text = (said.own_thread ? "says thread " : "says ") + quoted(said.text);
  const bool is_whole = said.length == static_cast<std::int64_t>(said.text.size());
  return is_whole ? text : text + " length " + std::to_string(said.length);
}

std::optional<says> parse_says(const std::string& line) try {
  tokens left(line);
  says said;
  if (!left.take_if("says")) return {};
  said.own_thread = left.take_if("thread");
  said.text = left.take_quoted();
  said.length = static_cast<std::int64_t>(said.text.size());
  if (left.take_if("length")) said.length = left.take_number(INT32_MIN, said.length);
  left.take_end();
  return said;
} catch (const syntax_error&) {
  return {};
}

}  // namespace virtual_reader
