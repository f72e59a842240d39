#include "reader.h"

#include <algorithm>

namespace virtual_reader {

namespace {

template <typename T>
std::string led_text(const T* record) {
  if (record[0] == 0) return "auto";
  if (record[1] != 0) return record[2] != 0 ? "amber" : "red";
  return record[2] != 0 ? "green" : "off";
}

}  // namespace

void reader::power(bool on) {
  if (plugged == on) return;
  plugged = on;
  holder = 0;
  held_is_known = false;
  led = led_text(&stored[led_record]);
  log.add(0, on ? "plugged in" : "unplugged");
}

void reader::hold(std::optional<card_id> card) {
  if (!card || !held || !(*card == *held)) held_is_known = false;
  held = card;
}

void reader::release_from(int agent) {
  if (holder != agent) return;
  holder = 0;
  log.add(agent, "disconnected");
}

void reader::fetch_card(int agent) {
  agent_state& own = agents[agent];
  const bool is_queued = !queue.empty();
  own.was_idle = !is_queued && (!held || held_is_known);
  held_is_known = !is_queued && held;
  own.id = {};
  if (!is_queued && !held) return;
  const card_id id = is_queued ? queue.front() : *held;
  if (is_queued) queue.pop_front();
  own.id = id.values;
  if (!own.was_idle) log.add(agent, "card " + to_text(id));
}

bool reader::run(int agent, call* asked, std::optional<std::int64_t> error) {
  const result_kind kind = result_of(asked->name);
  agent_state& own = agents[agent];
  const bool needs_reader =
      (kind == result_kind::status && asked->name != "usbConnect") || kind == result_kind::text;
  if (!error && needs_reader && holder != agent) error = no_reader_connected;
  if (!error) error = effect(agent, asked);
  if (error) own.last_error = *error;
  asked->has_result = kind != result_kind::none || error;
  asked->has_text = kind == result_kind::text;
  if (kind == result_kind::status || (kind == result_kind::none && error)) {
    asked->values.insert(asked->values.begin(), error ? 0 : 1);
  }
  return own.was_idle && !error &&
         (asked->name == "GetQueuedID" || asked->name == "GetQueuedID_index");
}

// Returns the error if it fails.
std::optional<std::int64_t> reader::effect(int agent, call* asked) {
  const std::string& name = asked->name;
  const auto& arguments = asked->arguments;
  agent_state& own = agents[agent];
  const auto record = record_of(name);
  if (record && name != "SetLEDCtrl" && !own.read) return no_configuration_read;
  if (record && name[0] == 'G') {
    asked->values.assign(&(*own.read)[*record], &(*own.read)[*record] + 8);
  } else if (record && arguments.size() == 8) {
    if (own.read) std::copy(arguments.begin(), arguments.end(), &(*own.read)[*record]);
    if (*record != led_record) return {};
    led = led_text(arguments.data());
    log.add(agent, "led " + led);
  } else if (name == "usbConnect") {
    own.read.reset();
    if (!plugged) return no_reader_connected;
    if (holder != 0 && holder != agent) {
      log.add(agent, "agent refused: agent " + std::to_string(holder) + " holds the reader");
      return held_by_another_agent;
    }
    holder = agent;
    connected_part_number = part_number;
    log.add(agent, "connected");
  } else if (name == "USBDisconnect") {
    own.read.reset();
    release_from(agent);
  } else if (name == "getPartNumberString") {
    asked->text = connected_part_number;
  } else if (name == "GetDevName") {
    asked->text = "virtual reader";
  } else if (name == "GetLastLibErr") {
    asked->values = {own.last_error};
  } else if (name == "GetQueuedID") {
    fetch_card(agent);
  } else if (name == "GetQueuedID_index") {
    const auto place = arguments.empty() ? 33 : static_cast<std::size_t>(arguments[0]);
    asked->values = {place < own.id.size() ? own.id[place] : 0};
  } else if (name == "BeepNow" && arguments.size() == 2) {
    const std::int64_t count = arguments[0] & 0xFF;  // all that the call itself can hold
    const bool is_long = arguments[1] != 0;
    (is_long ? long_beeps : short_beeps) += count;
    log.add(agent, (is_long ? "beep long " : "beep short ") + std::to_string(count));
  } else if (name == "ReadCfg") {
    own.read = stored;
  } else if (name == "WriteCfg") {
    if (!own.read) return no_configuration_read;
    stored = *own.read;
    std::string text = "config";
    for (const std::string& line : to_text(stored, false)) text += " " + line;
    log.add(agent, text);
  } else if (name == "ResetFactoryDflts") {
    stored = factory_defaults;
    led = led_text(&stored[led_record]);
    log.add(agent, "reset");
    log.add(agent, "led " + led);
  }
  return {};
}

}  // namespace virtual_reader
