// The process as its application sees it: its lines, their order and timing, its threads, and its
// end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

#include "process_figures.h"
#include "rig.h"
#include "stub_reader.h"

namespace {

using lines = std::vector<std::string>;
using clock = std::chrono::steady_clock;

// The agent with the stub library, whose reader is plugged in or not.
struct stub_rig {
  explicit stub_rig(bool attached) : page(*map_stub_reader((folder.path + "/page").c_str())) {
    page.attached = attached;
    agent = std::make_unique<agent_process>(
        STUB_AGENT, agent_process::environment{{stub_reader_variable, folder.path + "/page"}});
  }
  scratch_folder folder;
  stub_reader& page;
  std::unique_ptr<agent_process> agent;
};

TEST(Process, LinesHaveAtMost1023Bytes) {
  const std::string too_long = "Error: Input line was too long to process";
  const std::string ping = "Global:Ping ";
  const auto ping_of_size = [&](std::size_t size) {
    return ping + std::string(size - ping.size(), 'x');
  };
  const std::string longest = ping_of_size(1023);
  const std::string answer = "Ok: " + longest.substr(ping.size() - 1);
  const struct {
    std::string input;
    lines output;
  } rows[] = {
      {"", {}},
      {"\n \t\r\n\n", {}},
      {"Global:Ping a\r\nGlobal:Ping b", {"Ok:  a", "Ok:  b"}},
      {longest + "\nGlobal:Ping\n", {answer, "Ok:"}},
      {longest, {answer}},
      {ping_of_size(1024) + "\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(1024), {too_long}},
      {std::string(1023, ' ') + "Global:Ping\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(2046) + "\nGlobal:Ping\n", {too_long, "Ok:"}},
      {ping_of_size(100000) + "\n" + ping_of_size(50000) + "\nGlobal:Ping",
       {too_long, too_long, "Ok:"}},
  };
  rig r({"unplug"});
  for (const auto& row : rows) {
    r.start_agent();
    r.agent->send(row.input);
    r.agent->close_input();
    EXPECT_EQ(r.agent->remaining_lines(), row.output) << row.input.substr(0, 40);
    EXPECT_EQ(r.agent->wait(), 0);
  }
}

TEST(Process, LineIsRejectedBeforeItsEndIsRead) {
  rig r({"unplug"});
  r.agent->send(std::string(1023, 'x'));
  EXPECT_EQ(r.agent->next_line(std::chrono::milliseconds(100)), "(timeout)");
  r.agent->send("x");
  EXPECT_EQ(r.agent->next_line(), "Error: Input line was too long to process");
  r.agent->send(std::string(5000, 'x') + "\nGlobal:Ping\n");
  EXPECT_EQ(r.agent->next_line(), "Ok:");
}

TEST(Process, LineSentInPiecesIsOneLine) {
  rig r({"unplug"});
  for (const std::size_t size : {500u, 511u, 512u, 900u}) {
    const std::string half(size, 'x');
    r.agent->send("Global:Ping\nGlobal:Ping " + half.substr(12));
    EXPECT_EQ(r.agent->next_line(), "Ok:") << "and so the first half has been read";
    r.agent->send(half + "\n");
    EXPECT_EQ(r.agent->next_line(), 2 * size > 1023 ? "Error: Input line was too long to process"
                                                    : "Ok:  " + half.substr(12) + half);
  }
}

TEST(Process, OutputLinesMayHaveAnyLength) {
  rig r({"part none"});
  const std::string name = r.agent->await_reader();
  for (const std::size_t size : {1u, 16'000u, 16'363u, 16'364u, 17'000u, 70'000u, 1'000'000u}) {
    const std::string text(size, 'x');
    r.run("say ReadCfg \"" + text + "\"");
    r.agent->send_line(name + ":ReaderConfig");
    EXPECT_EQ(r.agent->next_line(), "Log: pcProxAPI says " + text);
    EXPECT_EQ(r.agent->next_line(), "Ok:");
  }
  // Two in a batch, of which the first just fits into what is gathered for one write.
  const std::string part(16 * 1024 - 3 - std::string("Reader: -").size() - name.size(), 'x');
  r.run("part \"" + part + "\"");
  for (int i = 0; i < 20; ++i) {
    r.run("replug");
    EXPECT_EQ(r.agent->next_line().substr(0, 12), "Reader: Dev1");
    EXPECT_EQ(r.agent->next_line(), "Log: Reader part number is '" + part + "'");
  }
}

TEST(Process, ReaderNumbersStartFromTheClock) {
  const auto start = static_cast<std::uint64_t>(std::time(nullptr));
  rig r({"part none"});
  const std::string name = r.agent->await_reader();
  const std::uint64_t number = std::stoull(name.substr(3));
  EXPECT_EQ(name, "Dev" + std::to_string(number));
  EXPECT_EQ(number % 1000, 1u);
  EXPECT_GE(number / 1000, start);
  EXPECT_LE(number / 1000, static_cast<std::uint64_t>(std::time(nullptr)));
}

TEST(Process, LibraryIsCalledOnTheMainThreadOnly) {
  stub_rig r(true);
  const std::string name = r.agent->await_reader();
  r.agent->send(name + ":ReaderConfig tsLEDCtrl.iRedLEDState=1\n" + name + ":ResetConfig\n");
  r.agent->close_input();
  EXPECT_EQ(r.agent->remaining_lines(), (lines{"Log: Reader part number is 'STUB'", "Ok:", "Ok:"}));
  EXPECT_EQ(r.agent->wait(), 0);
  EXPECT_EQ(r.page.calls_off_main, 0);
  EXPECT_EQ(r.page.calls_unheard, 0) << "the log relay is set first and removed last";
  EXPECT_EQ(r.page.removals, 1);
  EXPECT_EQ(r.page.led_fields_set, 1 << 1) << "what the library left out is 0";
}

TEST(Process, IdleAgentWakesOnlyForScans) {
#if !defined(__linux__) || defined(SANITIZED)
  GTEST_SKIP() << "needs Linux's count of context switches, and a plain build";
#endif
  for (const bool attached : {false, true}) {
    stub_rig r(attached);
    EXPECT_EQ(r.agent->ask("Global:Ping"), "Ok:") << "it has started";
    while (attached && r.page.polls < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Until its threads have gone to sleep.
    std::uint64_t before = 0;
    while (before != voluntary_switches(r.agent->pid())) {
      before = voluntary_switches(r.agent->pid());
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const std::int64_t polls_before = r.page.polls;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const std::uint64_t woken = voluntary_switches(r.agent->pid()) - before;
    const std::int64_t polled = r.page.polls - polls_before;
    EXPECT_EQ(polled, attached ? 4 : 0);
    EXPECT_LE(woken, attached ? 5u : 0u);
  }
}

TEST(Process, ScanIntervalsAreTenSecondsAndAQuarter) {
  rig r({"unplug", "part none"});
  EXPECT_EQ(r.agent->ask("Global:Ping"), "Ok:");
  ASSERT_TRUE(r.wait_for_call("usbConnect", 1));
  const auto first_search = clock::now();
  r.run("plug");
  r.agent->await_reader();
  const std::chrono::duration<double> between = clock::now() - first_search;
  EXPECT_NEAR(between.count(), 10, 0.5);
  EXPECT_EQ(r.call_count("usbConnect"), 2u);

  ASSERT_TRUE(r.wait_for_call("GetQueuedID", 1));
  const auto first_poll = clock::now();
  auto poll = first_poll;
  clock::duration shortest = patience;  // a busy machine makes some pauses longer
  for (std::uint64_t polls = 2; polls <= 9; ++polls) {
    ASSERT_TRUE(r.wait_for_call("GetQueuedID", polls));
    shortest = std::min(shortest, clock::now() - poll);
    poll = clock::now();
  }
  EXPECT_LT(shortest, std::chrono::milliseconds(262));
  const std::chrono::duration<double> eight_polls = poll - first_poll;
  EXPECT_GE(eight_polls.count(), 1.99);
  EXPECT_LE(eight_polls.count(), 2.6);
}

TEST(Process, IntervalsStartAtTheEndOfAScan) {
  rig r({"part none", "hang usbConnect"}, QUICK_AGENT, {{"SEARCH_MS", "300"}, {"POLL_MS", "300"}});
  for (const std::string call : {"usbConnect", "GetQueuedID"}) {
    ASSERT_TRUE(r.wait_for_call(call, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));  // more than two pauses
    if (call == "usbConnect") r.run("unplug");
    const auto released = clock::now();
    r.run("release");
    ASSERT_TRUE(r.wait_for_call(call, 2));
    EXPECT_GE(clock::now() - released, std::chrono::milliseconds(300)) << call;
    r.run("hang GetQueuedID");
    r.run("plug");
  }
}

TEST(Process, FirstPollFollowsTheConnectionImmediately) {
  rig r({"part none"}, QUICK_AGENT, {{"POLL_MS", "60000"}});
  EXPECT_TRUE(r.wait_for_call("GetQueuedID", 1));
}

TEST(Process, QueuedWorkRunsAfterTheEndOfInput) {
  rig r({"part none", "hang GetQueuedID"});
  r.agent->await_reader();
  ASSERT_TRUE(r.wait_for_call("GetQueuedID", 1));
  r.agent->close_input();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until the end is queued
  r.run("unplug");
  r.run("release");
  r.agent->remaining_lines();
  EXPECT_EQ(r.agent->wait(), 0);
  EXPECT_EQ(r.call_count("usbConnect"), 2u) << "the search that the failed poll asked for";
}

TEST(Process, CommandsAreAnsweredBetweenPolls) {
  rig r;
  const std::string name = r.agent->await_reader();
  std::vector<clock::duration> times;
  const auto first = clock::now();
  for (int round = 0; round < 101; ++round) {
    const auto start = clock::now();
    ASSERT_EQ(r.agent->ask(name + ":Beep short 1"), "Ok:");
    times.push_back(clock::now() - start);
  }
  std::nth_element(times.begin(), times.begin() + 50, times.end());
  EXPECT_LT(times[50], std::chrono::milliseconds(5));
  const auto polls = static_cast<std::int64_t>(r.call_count("GetQueuedID"));
  EXPECT_LE(polls, 2 + (clock::now() - first) / std::chrono::milliseconds(250)) << "no more polls";
}

TEST(Process, InputIsReadWhileALibraryCallHangs) {
  rig r;
  const std::string name = r.agent->await_reader();
  r.run("hang BeepNow");
  r.agent->send_line(name + ":Beep short 1");
  ASSERT_TRUE(r.wait_for_call("BeepNow", 1));
  // More than any pipe holds: this returns only if the agent goes on reading.
  std::string flood;
  for (int i = 0; i < 20000; ++i) flood += "Global:Ping " + std::to_string(i) + "\n";
  r.agent->send(flood);
  r.run("release");
  EXPECT_EQ(r.agent->line_beginning("Ok"), "Ok:") << "the beep's answer comes first";
  for (int i = 0; i < 20000; ++i) ASSERT_EQ(r.agent->next_line(), "Ok:  " + std::to_string(i));
}

TEST(Process, EveryCommandBeforeTheEndOfInputIsAnswered) {
  rig r({"unplug"});
  std::thread application([&] {
    std::string flood;
    for (int i = 0; i < 100000; ++i) flood += "Global:Ping " + std::to_string(i) + "\n";
    r.agent->send(flood);
    r.agent->close_input();
  });
  const lines answers = r.agent->remaining_lines();
  application.join();
  ASSERT_EQ(answers.size(), 100000u);
  for (std::size_t i = 0; i < answers.size(); ++i) {
    ASSERT_EQ(answers[i], "Ok:  " + std::to_string(i));
  }
  EXPECT_EQ(r.agent->wait(), 0);
}

// Scans follow each other without a pause then, each connection under another name.
TEST(Process, FailingPollsNeitherMisnameTheReaderNorBlockTheEnd) {
  rig r({"part none", "fail GetQueuedID always"});
  std::string reader = r.agent->await_reader();
  std::atomic<int> connections{1};
  std::atomic<int> answers{0};
  int commands = 0;
  clock::time_point closed;
  std::thread application([&] {
    while (connections < 500) {
      if (commands - answers > 1000) continue;  // not so many that scans become rare
      r.agent->send_line("R1:ClearLED");
      ++commands;
    }
    closed = clock::now();
    r.agent->close_input();
  });
  const clock::time_point give_up = clock::now() + patience;
  std::string line, wrong;
  while ((line = r.agent->next_line()) != "(end)" && clock::now() < give_up) {
    if (line.rfind("Reader: ", 0) == 0) {
      reader = line.substr(8);
      ++connections;
    } else if (++answers;
               line != "Error: Action was for reader R1, but the current reader is " + reader) {
      wrong = line + " instead of " + reader;
    }
  }
  connections = 500;
  application.join();
  ASSERT_EQ(line, "(end)");
  EXPECT_LT(clock::now() - closed, std::chrono::seconds(1));
  EXPECT_EQ(r.agent->wait(), 0);
  EXPECT_EQ(answers, commands);
  EXPECT_EQ(wrong, "");
}

}  // namespace
