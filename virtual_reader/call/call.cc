#include "call.h"

#include <algorithm>

#include "event_line.h"

namespace virtual_reader {

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

std::optional<call> parse_call(message given, int agent) {
  constexpr std::size_t most_numbers = 3 + 8 + 40;  // its head, one record, all records
  const std::vector<std::int64_t>& all = given.numbers;
  if (given.texts.size() != 1 || !is_call(given.texts[0])) return {};
  const bool is_right = all.size() >= 3 && all.size() <= most_numbers && all[2] >= 0 &&
                        static_cast<std::size_t>(all[2]) <= all.size() - 3;
  if (!is_right) return {};
  const auto extras = all.begin() + 3 + all[2];
  call asked;
  asked.agent = agent;
  asked.name = given.texts[0];
  asked.kind = all[0];
  asked.own_error = all[1];
  asked.arguments = {all.begin() + 3, extras};
  asked.extras = {extras, all.end()};
  return asked;
}

std::string ended_text(const call& done, bool has_failed) {
  call_text text;
  text.name = done.name;
  text.arguments = done.arguments;
  text.has_result = done.kind != no_result;
  if (done.kind == status_result) text.values = {has_failed ? 0 : 1};
  text.has_text = done.kind == text_result;
  if (!done.result.texts.empty()) text.text = done.result.texts[0].substr(0, longest_event);
  const bool has_record = done.extras.size() == 8 && !has_failed;
  if (has_record || done.kind == number_result) {
    text.values.insert(text.values.end(), done.extras.begin(), done.extras.end());
  }
  const auto took = std::chrono::steady_clock::now() - done.begun;
  if (took >= std::chrono::milliseconds(10)) {
    text.took = std::chrono::duration_cast<std::chrono::microseconds>(took);
  }
  return to_text(text);
}

std::string begun_text(const call& begun) {
  call_text text;
  text.name = begun.name;
  text.arguments = begun.arguments;
  text.has_ended = false;
  return to_text(text);
}

}  // namespace virtual_reader
