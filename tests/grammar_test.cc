// From the text of a line to its work item: the tokenizer and the command grammar, a row a case.
#include <gtest/gtest.h>

#include <algorithm>

#include "feedback.h"
#include "parse_line.h"
#include "set_config.h"
#include "token_split.h"

namespace {

// What a work item is, in words: its kind, its target and its own fields.
std::string describe(action* item) {
  const std::string flags = item && item->silent ? " silent" : "";
  const std::string target = item ? " for [" + item->reader + "]" + flags : "";
  if (auto* it = dynamic_cast<pong*>(item)) return "pong" + target + " [" + it->text + "]";
  if (auto* it = dynamic_cast<print_error*>(item)) return "error" + target + " " + it->text;
  if (auto* it = dynamic_cast<beep*>(item)) {
    return "beep" + target + (it->long_beep ? " long " : " short ") + std::to_string(it->count);
  }
  if (auto* it = dynamic_cast<set_led_state*>(item)) {
    return "led" + target + (it->red ? " red" : "") + (it->green ? " green" : "");
  }
  if (dynamic_cast<clear_led_state*>(item)) return "clear" + target;
  if (dynamic_cast<reset_config*>(item)) return "reset" + target;
  if (auto* it = dynamic_cast<set_config*>(item)) {
    std::vector<std::string> settings;
    for (const auto& [type, values] : it->settings) {
      for (const auto& [name, value] : values) {
        settings.push_back(" [" + type + "][" + name + "]=" + std::to_string(value));
      }
    }
    std::sort(settings.begin(), settings.end());
    std::string text = "config" + target;
    for (const std::string& setting : settings) text += setting;
    return text;
  }
  return "nothing";
}

struct row {
  std::string line;
  std::string expected;
};

void check(const std::vector<row>& rows) {
  for (const row& r : rows) {
    EXPECT_EQ(describe(parse_line(r.line).get()), r.expected) << "for the line [" << r.line << "]";
  }
}

TEST(TokenSplit, TakesTheFirstTokenAndLeavesTheRestUntrimmed) {
  const struct {
    std::string text, token, rest;
  } rows[] = {
      {"  ab  cd", "ab", "  cd"},
      {"ab", "ab", ""},
      {"   ", "", ""},
      {"", "", ""},
      {"\v\f\r\n\tab\v", "ab", "\v"},
      {"\xA0 x", "\xA0", " x"},
      {"'a b'", "'a", " b'"},
  };
  for (const auto& r : rows) {
    const auto [token, rest] = token_split(r.text);
    EXPECT_EQ(token, r.token) << r.text;
    EXPECT_EQ(rest, r.rest) << r.text;
  }
}

TEST(Line, BeginsWithAReaderNameAndAColon) {
  check({
      {"", "nothing"},
      {" \t\v\f\r", "nothing"},
      {std::string("\0Global:Ping", 12), "nothing"},
      {":", "error for [Global] Command has no reader"},
      {":::  ", "error for [Global] Command has no reader"},
      {"Beep short 1", "error for [Global] Reader name must be followed by a colon"},
      {":R1", "error for [Global] Reader name must be followed by a colon"},
      {"R1:ClearLED", "clear for [R1]"},
      {"::R1:ClearLED\r", "clear for [R1]"},
      {" R1:ClearLED", "clear for [ R1]"},
      {"R 1:\t ClearLED", "clear for [R 1]"},
      {"\xC3\xA4:ClearLED", "clear for [\xC3\xA4]"},
      {std::string("R1:ClearLED\0x", 13), "clear for [R1]"},
      {"R1::ClearLED", "error for [Global] Unknown command ':ClearLED' for reader 'R1'"},
  });
}

TEST(Commands, BelongToTheAgentOrToAReader) {
  check({
      {"Global:Ping", "pong for [Global] []"},
      {"Global:Ping  a  'b' ", "pong for [Global] [  a  'b']"},
      {"R1:Ping", "error for [Global] Unknown command 'Ping' for reader 'R1'"},
      {"Global:Beep short 1", "error for [Global] Unknown command 'Beep' for reader 'Global'"},
      {"global:Ping", "error for [Global] Unknown command 'Ping' for reader 'global'"},
      {"Global :Ping", "error for [Global] Unknown command 'Ping' for reader 'Global '"},
      {"R1:beep short 1", "error for [Global] Unknown command 'beep' for reader 'R1'"},
      {"R1:", "error for [Global] Unknown command '' for reader 'R1'"},
      {"R1:ClearLED please", "clear for [R1]"},
      {"R1:ResetConfig now", "reset for [R1]"},
  });
}

TEST(Beep, TakesALengthAndACountWithinItsLimit) {
  const std::string count_error = "error for [Global] Invalid number of beeps: ";
  check({
      {"R1:Beep short 1", "beep for [R1] short 1"},
      {"R1:  Beep   short\t5 more", "beep for [R1] short 5"},
      {"R1:Beep long 1", "beep for [R1] long 1"},
      {"R1:Beep long 2 now", "beep for [R1] long 2"},
      {"R1:Beep", "error for [Global] Invalid beep length ''"},
      {"R1:Beep Short 9", "error for [Global] Invalid beep length 'Short'"},
      {"R1:Beep short", count_error + "''"},
      {"R1:Beep short 0", count_error + "'0'"},
      {"R1:Beep short 6", count_error + "'6'"},
      {"R1:Beep long 3", count_error + "'3'"},
      {"R1:Beep short 05", count_error + "'05'"},
      {"R1:Beep short \xB1", count_error + "'\xB1'"},
  });
}

TEST(SetLed, TakesAColor) {
  const std::string error = "error for [Global] LED color parameter must be one of <red|green|off>";
  check({
      {"R1:SetLED red", "led for [R1] red"},
      {"R1:SetLED green now", "led for [R1] green"},
      {"R1:SetLED amber", "led for [R1] red green"},
      {"R1:SetLED off", "led for [R1]"},
      {"R1:SetLED Red", error},
      {"R1:SetLED", error},
  });
}

TEST(ReaderConfig, TakesSettingsAllOrNone) {
  const std::string head = "R1:ReaderConfig ";
  const auto error = [](const std::string& what) { return "error for [Global] Could not " + what; };
  check({
      {"R1:ReaderConfig", "config for [R1]"},
      {head + "tsCfgFlags.bHaltKBSnd=1", "config for [R1] [tsCfgFlags][bHaltKBSnd]=1"},
      {head + ".t..n==2", "config for [R1] [t][n]=2"},
      {head + "a.b.c=5", "config for [R1] [a][b.c]=5"},
      {head + "a.=b=3", "config for [R1] [a][b]=3"},
      {head + "a.b=1=2", "config for [R1] [a][b]=1"},
      {head + "a.b=-7x a.c=+8", "config for [R1] [a][b]=-7 [a][c]=8"},
      {head + "a.b=2147483647 a.c=-2147483648",
       "config for [R1] [a][b]=2147483647 [a][c]=-2147483648"},
      {head + "a.b=1 c.b=2 a.b=0", "config for [R1] [a][b]=0 [c][b]=2"},
      {head + "...", error("get setting type from '...'")},
      {head + "abc=1", error("get setting name from 'abc=1'")},
      {head + "a.==", error("get setting name from 'a.=='")},
      {head + "a.b", error("get setting value from 'a.b'")},
      {head + "a.=5", error("get setting value from 'a.=5'")},
      {head + "a.b=", error("convert value '' to an integer")},
      {head + "a.b==x1", error("convert value 'x1' to an integer")},
      {head + "a.b=- c", error("convert value '-' to an integer")},
      {head + "a.b=2147483648", error("convert value '2147483648' to an integer")},
      {head + "a.b=-99999999999999999999",
       error("convert value '-99999999999999999999' to an integer")},
      {head + "a.b=1 bad ...", error("get setting name from 'bad'")},
  });
}

}  // namespace
