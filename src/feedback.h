// The small work items: what the application asks of the reader's beeper, LED and memory, the
// answers that need no reader, and the end of the agent.
//
// The four that drive the reader make one library call each; when it fails, their message is a
// fixed text and the library's error number.
#pragma once

#include <string>
#include <string_view>

#include "card_reader_state.h"

// Answers a ping with the text it came with.
struct pong : action {
  explicit pong(std::string_view ping_text) : action(global_reader, false), text(ping_text) {}
  action_result execute_impl() override;

  std::string text;  // moved into the result
};

// Brings the message for a rejected line to the application, in its turn among the results.
struct print_error : action {
  explicit print_error(std::string_view message) : action(global_reader, false), text(message) {}
  action_result execute_impl() override;

  std::string text;  // moved into the result
};

// Sounds the beeper.
struct beep : action {
  beep(std::string_view target, std::int32_t beeps, bool is_long)
      : action(target, false), count(beeps), long_beep(is_long) {}
  action_result execute_impl() override;

  std::int32_t count;  // 1 to 5 short beeps, 1 to 2 long ones
  bool long_beep;
};

// Takes the LED under the agent's control; both colours together are amber, neither is dark.
struct set_led_state : action {
  set_led_state(std::string_view target, bool red_on, bool green_on)
      : action(target, false), red(red_on), green(green_on) {}
  action_result execute_impl() override;

  bool red;
  bool green;
};

// Hands control of the LED back to the reader.
struct clear_led_state : action {
  explicit clear_led_state(std::string_view target) : action(target, false) {}
  action_result execute_impl() override;
};

// Resets the reader to its factory defaults. The reader stays connected and keeps its name.
struct reset_config : action {
  explicit reset_config(std::string_view target) : action(target, false) {}
  action_result execute_impl() override;
};

// Ends the agent: the writer once it has written what is pending, the loop once its queue is empty.
struct quit : action {
  quit() : action(global_reader, true) {}
  action_result execute_impl() override;
};
