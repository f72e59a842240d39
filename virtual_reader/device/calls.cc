// What each call does to the reader.
#include <algorithm>

#include "device.h"

namespace virtual_reader {

const std::string call_names =
    "SetMarkerFunction BeepNow GetLastLibErr SetLEDCtrl GetLEDCtrl GetQueuedID GetQueuedID_index "
    "USBDisconnect SetDevTypeSrch usbConnect getPartNumberString GetDevName ReadCfg WriteCfg "
    "GetIDBitCnts SetIDBitCnts GetFlags SetFlags GetTimeParms SetTimeParms GetFlags2 SetFlags2 "
    "ResetFactoryDflts";

bool is_call(const std::string& name) {
  return name.find(' ') == std::string::npos &&
         (" " + call_names + " ").find(" " + name + " ") != std::string::npos;
}

namespace {

template <typename T>
std::string led_text(const T* record) {
  if (record[0] == 0) return "own";
  if (record[1] != 0) return record[2] != 0 ? "amber" : "red";
  return record[2] != 0 ? "green" : "off";
}

}  // namespace

void device::state::power(bool on, const std::string& event) {
  if (plugged == on) return;
  plugged = on;
  holder = -1;
  led = led_text(&stored[led_record]);
  events.push_back(event);
}

void device::state::release_from(int socket) {
  if (holder != socket) return;
  holder = -1;
  events.emplace_back("disconnected");
}

std::vector<rule> device::state::take_due(const std::string& name) {
  std::vector<rule> due;
  bool fails = false;
  for (rule& each : faults) {
    const bool is_failure = each.what == rule::kind::fail;
    const bool waits = is_failure && fails && each.first == 1;
    if (each.call != name || waits || ++each.seen < each.first) continue;
    fails |= is_failure;
    due.push_back(each);
  }
  const auto used_up = [](const rule& each) { return each.seen >= each.last; };
  faults.erase(std::remove_if(faults.begin(), faults.end(), used_up), faults.end());
  return due;
}

std::optional<std::int64_t> device::state::carry_out(call* asked) {
  const std::string& name = asked->name;
  const auto& arguments = asked->arguments;
  const bool needs_reader =
      (asked->kind == status_result && name != "usbConnect") || asked->kind == text_result;
  if (needs_reader && holder != asked->socket) return no_reader_connected;
  if (asked->own_error != no_error) return asked->own_error;
  if (name == "usbConnect") {
    if (!plugged) return no_reader_connected;
    if (holder >= 0 && holder != asked->socket) return held_by_another_agent;
    holder = asked->socket;
    part_number_told = part_number;
    events.emplace_back("connected");
  } else if (name == "USBDisconnect") {
    release_from(asked->socket);
  } else if (name == "getPartNumberString") {
    if (part_number_told) asked->result.texts = {*part_number_told};
  } else if (name == "GetDevName") {
    asked->result.texts = {"virtual reader"};
  } else if (name == "GetQueuedID") {
    card_found = held || !queue.empty();
    if (!card_found) return {};
    const card_id id = queue.empty() ? *held : queue.front();
    if (!queue.empty()) queue.pop_front();
    asked->result.numbers = {id.values.begin(), id.values.end()};
    events.push_back("card " + id.text);
  } else if (name == "BeepNow" && arguments.size() == 2) {
    const std::int64_t count = arguments[0] & 0xFF;  // all that the call itself can hold
    const bool is_long = arguments[1] != 0;
    (is_long ? long_beeps : short_beeps) += count;
    events.push_back((is_long ? "beep long " : "beep short ") + std::to_string(count));
  } else if (name == "SetLEDCtrl" && arguments.size() == 8) {
    led = led_text(arguments.data());
    events.push_back("led " + led);
  } else if (name == "ReadCfg") {
    asked->result.numbers = {stored.begin(), stored.end()};
  } else if (name == "WriteCfg" && asked->extras.size() == stored.size()) {
    std::transform(asked->extras.begin(), asked->extras.end(), stored.begin(),
                   [](std::int64_t field) { return static_cast<std::int16_t>(field); });
    events.emplace_back("config written");
  } else if (name == "ResetFactoryDflts") {
    stored = factory_defaults;
    led = led_text(&stored[led_record]);
    events.insert(events.end(), {"config reset", "led " + led});
  }
  return {};
}

}  // namespace virtual_reader
