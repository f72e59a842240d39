#include "feedback.h"

#include "globals.h"

namespace {

action_result result_of(pc_prox::status status, const char* failure) {
  if (status != 0) return {true, {}};
  return {false, failure + std::to_string(globals::api().GetLastLibErr())};
}

pc_prox::sLEDCtrl led_control(bool agent_controls, bool red, bool green) {
  pc_prox::sLEDCtrl record{};
  record.bAppCtrlsLED = agent_controls;
  record.iRedLEDState = red;
  record.iGrnLEDState = green;
  record.reserved14 = 1;  // as the library expects for the LED
  return record;
}

}  // namespace

action_result pong::execute_impl() { return {true, std::move(text)}; }

action_result print_error::execute_impl() { return {false, std::move(text)}; }

action_result beep::execute_impl() {
  return result_of(globals::api().BeepNow(static_cast<std::uint8_t>(count), long_beep),
                   "Beeping failed with error ");
}

action_result set_led_state::execute_impl() {
  pc_prox::sLEDCtrl record = led_control(true, red, green);
  return result_of(globals::api().SetLEDCtrl(&record), "Setting LED state failed with error ");
}

action_result clear_led_state::execute_impl() {
  pc_prox::sLEDCtrl record = led_control(false, false, false);
  return result_of(globals::api().SetLEDCtrl(&record), "Clearing LED state failed with error ");
}

action_result reset_config::execute_impl() {
  return result_of(globals::api().ResetFactoryDflts(), "Resetting card reader failed with error ");
}

action_result quit::execute_impl() {
  globals::out_state().request_stop();
  globals::card_state().stop = true;
  return {true, {}};
}
