// Readers that come and go, and the cards they report.
#include <gtest/gtest.h>

#include <ctime>

#include "bench.h"

namespace {

using lines = std::vector<std::string>;

// Scans at once, and polls too often for a test to wait for them.
const agent_process::environment quick = {{"SEARCH_MS", "5"}, {"POLL_MS", "5"}};

std::uint64_t number_of(const std::string& reader_name) {
  return std::stoull(reader_name.substr(3));
}

TEST(Reader, IsNamedAfterANumberAndItsPart) {
  const struct {
    std::string verb, suffix;
    lines log;
  } rows[] = {
      {R"(part none)", "", {}},
      {R"(part "")", "", {"Log: Reader part number is ''"}},
      {R"(part "AB 12")", "-AB_12", {"Log: Reader part number is 'AB 12'"}},
      {R"(part "A\tB ")", "-A_B_", {"Log: Reader part number is 'A\tB '"}},
      {R"(part " \v\f\r\xA0\xFF")",
       "-____\xA0\xFF",
       {"Log: Reader part number is ' \v\f\r\xA0\xFF'"}},
  };
  bench b({"unplug"}, TEST_AGENT, quick);
  for (const auto& row : rows) {
    b.run(row.verb);
    b.run("plug");
    const auto start = static_cast<std::uint64_t>(std::time(nullptr));
    b.start_agent();
    const std::string name = b.await_reader();
    const std::uint64_t number = number_of(name);
    EXPECT_EQ(name, "Dev" + std::to_string(number) + row.suffix);
    EXPECT_EQ(number % 1000, 1u);
    EXPECT_GE(number / 1000, start);
    EXPECT_LE(number / 1000, static_cast<std::uint64_t>(std::time(nullptr)));
    for (const std::string& log : row.log) EXPECT_EQ(b.agent->next_line(), log);
    b.run("unplug");
    EXPECT_EQ(b.agent->next_line(), "Reader: Global");
    EXPECT_EQ(b.agent->finish(), 0);
  }
}

TEST(Reader, IsSearchedForInAFixedOrderOfCalls) {
  bench b({"part none", "card hold 3AB1234/26"}, TEST_AGENT, quick);
  const std::string name = b.await_reader();
  EXPECT_EQ(b.agent->next_line(), "Card: 3AB1234");
  EXPECT_EQ(b.agent->finish(), 0);
  lines names;
  for (const std::string& call : b.calls()) names.push_back(call.substr(0, call.find(' ')));
  ASSERT_GT(names.size(), 6u);
  EXPECT_EQ(lines(names.begin(), names.begin() + 6),
            (lines{"SetMarkerFunction", "USBDisconnect", "SetDevTypeSrch", "usbConnect",
                   "getPartNumberString", "GetQueuedID"}));
  EXPECT_EQ(names.back(), "SetMarkerFunction");
}

TEST(Reader, TakesTheNextNumberAtEveryConnection) {
  bench b({"part none"}, TEST_AGENT, quick);
  const std::string first = b.await_reader();
  b.run("replug");
  const std::string second = b.agent->next_line();
  EXPECT_EQ(second, "Reader: Dev" + std::to_string(number_of(first) + 1)) << "found again at once";
  EXPECT_EQ(
      b.agent->ask(first + ":ClearLED"),
      "Error: Action was for reader " + first + ", but the current reader is " + second.substr(8));
  b.run("unplug");
  EXPECT_EQ(b.agent->next_line(), "Reader: Global");
  EXPECT_EQ(b.agent->ask(first + ":ClearLED"),
            "Error: Action was for reader " + first + ", but there is no reader attached");
  b.run("plug");
  EXPECT_EQ(b.agent->next_line(), "Reader: Dev" + std::to_string(number_of(first) + 2));
}

TEST(Card, IsWrittenInHexadecimalByItsLength) {
  const struct {
    std::string verb, text;  // no text: no line
  } rows[] = {
      {"card queue 3AB1234/26", "3AB1234"},
      {"card raw 26 0x34 0x12 0xAB 0xFF", "3AB1234"},
      {"card raw 28 0x34 0x12 0xAB 0x0F", "0FAB1234"},
      {"card raw 32 0x34 0x12 0xAB 0xCD", "CDAB1234"},
      {"card raw 25 0x34 0x12 0xAB 0xFF", "1AB1234"},
      {"card raw 31 0x34 0x12 0xAB 0xFF", "7FAB1234"},
      {"card raw 0 0x34 0x12", "1234"},
      {"card raw 0 0 0x12 0x100 -256", "1200"},
      {"card raw 8 0", "00"},
      {"card raw 8 0x1FE", "FE"},
      {"card raw 16 -2 -1", "FFFE"},
      {"card raw 1 0xFF", "1"},
      {"card raw 4 0xFF", "0F"},
      {"card raw 0 0", ""},
      {"card raw -1 0xFF", ""},
      {"card raw -9223372036854775808 0xFF", ""},
      {"card raw 257 0xFF", ""},
      {"card raw 9223372036854775807 0xFF", ""},
      {"card queue " + std::string(63, '0') + "1", std::string(63, '0') + "1"},
  };
  bench b({"part none"}, TEST_AGENT, quick);
  b.await_reader();
  for (const auto& row : rows) {
    b.run(row.verb);
    b.run("card queue EE");
    if (!row.text.empty()) {
      EXPECT_EQ(b.agent->next_line(), "Card: " + row.text) << row.verb;
    }
    EXPECT_EQ(b.agent->next_line(), "Card: EE") << row.verb;
  }
}

TEST(Card, IsReportedAtEveryPollWhileItIsHeld) {
  bench b({"part none", "card hold EE"}, TEST_AGENT, quick);
  b.await_reader();
  for (int poll = 0; poll < 3; ++poll) EXPECT_EQ(b.agent->next_line(), "Card: EE");
}

TEST(Library, HasItsTextRelayedAtTheMomentOfTheCall) {
  bench b({"part none"});
  const std::string name = b.await_reader();
  const struct {
    std::string verb;
    lines output;
  } rows[] = {
      {R"(say ReadCfg "abc")", {"Log: pcProxAPI says abc"}},
      {R"(say ReadCfg "abc" length 2)", {"Log: pcProxAPI says ab"}},
      {R"(say ReadCfg "abc" length 0)", {}},
      {R"(say ReadCfg "abc" length -1)", {}},
      {R"(say ReadCfg "a b \n")", {"Log: pcProxAPI says a b ", ""}},
      {R"(say ReadCfg "\x00\xFF")", {std::string("Log: pcProxAPI says \0\xFF", 22)}},
      {R"(say ReadCfg thread "elsewhere")", {"Log: pcProxAPI says elsewhere"}},
      {R"(say ReadCfg ")" + std::string(100000, 'x') + "\"",
       {"Log: pcProxAPI says " + std::string(100000, 'x')}},
  };
  for (const auto& row : rows) {
    b.run(row.verb);
    b.agent->send_line(name + ":ReaderConfig x.y=1");
    for (const std::string& line : row.output) EXPECT_EQ(b.agent->next_line(), line);
    EXPECT_EQ(b.agent->next_line(), "Log: Ignoring unexpected setting type x") << row.verb;
    EXPECT_EQ(b.agent->next_line(), "Ok:");
  }
  b.run(R"(say SetMarkerFunction "too late")");
  b.agent->close_input();
  EXPECT_EQ(b.agent->remaining_lines(), lines{}) << "the relay is gone by then";
}

}  // namespace
