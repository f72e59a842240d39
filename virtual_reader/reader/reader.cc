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
  if (!card || !held || card->text != held->text) held_is_known = false;
  held = std::move(card);
}

void reader::release_from(int agent) {
  if (holder != agent) return;
  holder = 0;
  log.add(agent, "disconnected");
}

void reader::fetch_card(call* asked) {
  const bool is_queued = queue.size() > 0;
  asked->is_idle = fetch_was_idle = !is_queued && (!held || held_is_known);
  held_is_known = !is_queued && held;
  if (!is_queued && !held) return;
  const card_id id = is_queued ? card_of(queue.pop()) : *held;
  asked->result.numbers = {id.values.begin(), id.values.end()};
  if (!asked->is_idle) log.add(asked->agent, "card " + id.text);
}

std::optional<std::int64_t> reader::run(call* asked) {
  const std::string& name = asked->name;
  const auto& arguments = asked->arguments;
  const int agent = asked->agent;
  const bool needs_reader =
      (asked->kind == status_result && name != "usbConnect") || asked->kind == text_result;
  if (needs_reader && holder != agent) return no_reader_connected;
  if (asked->own_error != no_error) return asked->own_error;
  if (name == "usbConnect") {
    if (!plugged) return no_reader_connected;
    if (holder != 0 && holder != agent) {
      log.add(agent, "agent refused: agent " + std::to_string(holder) + " holds the reader");
      return held_by_another_agent;
    }
    holder = agent;
    part_number_told = part_number;
    log.add(agent, "connected");
  } else if (name == "USBDisconnect") {
    release_from(agent);
  } else if (name == "getPartNumberString") {
    if (part_number_told) asked->result.texts = {*part_number_told};
  } else if (name == "GetDevName") {
    asked->result.texts = {"virtual reader"};
  } else if (name == "GetQueuedID") {
    fetch_card(asked);
  } else if (name == "GetQueuedID_index") {
    asked->is_idle = fetch_was_idle;
  } else if (name == "BeepNow" && arguments.size() == 2) {
    const std::int64_t count = arguments[0] & 0xFF;  // all that the call itself can hold
    const bool is_long = arguments[1] != 0;
    (is_long ? long_beeps : short_beeps) += count;
    log.add(agent, (is_long ? "beep long " : "beep short ") + std::to_string(count));
  } else if (name == "SetLEDCtrl" && arguments.size() == 8) {
    led = led_text(arguments.data());
    log.add(agent, "led " + led);
  } else if (name == "ReadCfg") {
    asked->result.numbers = {stored.begin(), stored.end()};
  } else if (name == "WriteCfg" && asked->extras.size() == stored.size()) {
    std::transform(asked->extras.begin(), asked->extras.end(), stored.begin(),
                   [](std::int64_t field) { return static_cast<std::int16_t>(field); });
    std::string text = "config";
    for (const std::string& record : to_text(stored, false)) text += " " + record;
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
