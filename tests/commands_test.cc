// Commands from the host to the reader and their answers, byte for byte.
#include <gtest/gtest.h>

#include "bench.h"

namespace {

using lines = std::vector<std::string>;

TEST(Commands, ReachTheReaderAndAreAnswered) {
  bench b;
  const std::string name = b.await_reader();
  b.calls_but_polls();
  const struct {
    std::string command;
    lines calls;
  } rows[] = {
      {"Beep short 5", {"BeepNow 5 0 -> 1"}},
      {"Beep long 2", {"BeepNow 2 1 -> 1"}},
      {"SetLED red", {"SetLEDCtrl 1 1 0 0 0 0 0 1 -> 1"}},
      {"SetLED green", {"SetLEDCtrl 1 0 1 0 0 0 0 1 -> 1"}},
      {"SetLED amber", {"SetLEDCtrl 1 1 1 0 0 0 0 1 -> 1"}},
      {"SetLED off", {"SetLEDCtrl 1 0 0 0 0 0 0 1 -> 1"}},
      {"ClearLED", {"SetLEDCtrl 0 0 0 0 0 0 0 1 -> 1"}},
      {"ResetConfig", {"ResetFactoryDflts -> 1"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(b.agent->ask(name + ":" + row.command), "Ok:") << row.command;
    EXPECT_EQ(b.calls_but_polls(), row.calls) << row.command;
  }
  EXPECT_EQ(b.agent->finish(), 0);
}

TEST(Commands, TellTheLibrarysErrorNumberWhenTheyFail) {
  bench b;
  const std::string name = b.await_reader();
  const struct {
    std::string fault, command, answer;
  } rows[] = {
      {"fail BeepNow error 3", "Beep short 2", "Error: Beeping failed with error 3"},
      {"fail SetLEDCtrl error -1", "SetLED red", "Error: Setting LED state failed with error -1"},
      {"fail SetLEDCtrl error -9223372036854775808", "ClearLED",
       "Error: Clearing LED state failed with error -9223372036854775808"},
      {"fail ResetFactoryDflts error 9223372036854775807", "ResetConfig",
       "Error: Resetting card reader failed with error 9223372036854775807"},
  };
  for (const auto& row : rows) {
    b.run(row.fault);
    EXPECT_EQ(b.agent->ask(name + ":" + row.command), row.answer);
    EXPECT_EQ(b.agent->ask(name + ":" + row.command), "Ok:") << "once the fault is over";
  }
}

TEST(Commands, ForAnotherReaderAreNotRun) {
  bench b({"unplug"});
  EXPECT_EQ(b.agent->ask("R1:Beep short 1"),
            "Error: Action was for reader R1, but there is no reader attached");
  EXPECT_EQ(b.agent->ask("global:Beep short 1"),
            "Error: Action was for reader global, but there is no reader attached");
  EXPECT_EQ(b.agent->ask("Global:Ping"), "Ok:");
  b.run("plug");
  b.start_agent();
  const std::string name = b.await_reader();
  EXPECT_EQ(b.agent->ask("R1:Beep short 1"),
            "Error: Action was for reader R1, but the current reader is " + name);
  EXPECT_EQ(b.agent->ask(name + " :Beep short 1"),
            "Error: Action was for reader " + name + " , but the current reader is " + name);
  EXPECT_EQ(b.agent->ask("Global:Ping"), "Ok:");
  EXPECT_EQ(b.reader.call_count("BeepNow"), 0u);
}

TEST(Input, IsReadLineByLineUpToItsLimit) {
  const std::string too_long = "Error: Input line was too long to process";
  const std::string ping = "Global:Ping ";
  const auto ping_of_size = [&](std::size_t size) {
    return ping + std::string(size - ping.size(), 'x');
  };
  const auto answer_to = [&](const std::string& line) {
    return "Ok: " + line.substr(ping.size() - 1);
  };
  const struct {
    std::string input;
    lines output;
  } rows[] = {
      {"", {}},
      {"\n \t\r\n\n", {}},
      {"Global:Ping a\r\nGlobal:Ping b", {"Ok:  a", "Ok:  b"}},
      {std::string("Global:Ping a\0b\nGlobal:Ping c\n", 30), {"Ok:  a", "Ok:  c"}},
      {"Global:Ping \xFF\x80\n", {"Ok:  \xFF\x80"}},
      {":\n:::\nx\n",
       {"Error: Command has no reader", "Error: Command has no reader",
        "Error: Reader name must be followed by a colon"}},
      {ping_of_size(1023) + "\nGlobal:Ping\n", {answer_to(ping_of_size(1023)), "Ok:"}},
      {ping_of_size(1023), {answer_to(ping_of_size(1023))}},
      {ping_of_size(1024) + "\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(1024), {too_long}},
      {std::string(1023, ' ') + "Global:Ping\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(2046) + "\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(100000) + "\n" + ping_of_size(50000) + "\nGlobal:Ping",
       {too_long, too_long, "Ok:"}},
  };
  bench b({"unplug"});
  for (const auto& row : rows) {
    b.start_agent();
    b.agent->send(row.input);
    b.agent->close_input();
    EXPECT_EQ(b.agent->remaining_lines(), row.output) << row.input.substr(0, 40);
    EXPECT_EQ(b.agent->wait(), 0);
  }
}

TEST(Input, MayComeInPieces) {
  bench b({"unplug"});
  for (const char c : std::string("Global:Ping piecemeal\n")) b.agent->send({c});
  EXPECT_EQ(b.agent->next_line(), "Ok:  piecemeal");
}

}  // namespace
