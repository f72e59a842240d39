// The process as its host sees it: order, timing, threads, and the end.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "bench.h"
#include "process_figures.h"

namespace {

using lines = std::vector<std::string>;
using clock = std::chrono::steady_clock;

lines file_lines(const std::string& path) {
  std::ifstream file(path);
  lines all;
  for (std::string line; std::getline(file, line);) all.push_back(line);
  return all;
}

std::size_t count_of(const lines& all, const std::string& wanted) {
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), wanted));
}

// A copy of the bundle with another reader library in it.
struct probe_bundle {
  probe_bundle() {
    const std::string contents = folder.path + "/Contents/";
    const std::string command = "mkdir -p " + contents + "MacOS " + contents + "Frameworks && cp " +
                                AGENT + " " + contents + "MacOS/agent && cp " + PROBE_LIBRARY +
                                " " + contents + "Frameworks/" + LIBRARY_NAME;
    if (std::system(command.c_str()) != 0) throw std::runtime_error(command);
    executable = contents + "MacOS/agent";
    log = folder.path + "/log";
  }
  scratch_folder folder;
  std::string executable, log;
};

TEST(Process, CallsTheLibraryOnTheMainThreadAlone) {
  const probe_bundle bundle;
  agent_process agent(bundle.executable, {{"PROBE_LOG", bundle.log}, {"PROBE_READER", "1"}});
  const std::string name = agent.line_beginning("Reader: ").substr(8);
  agent.send(name + ":Beep short 1\n" + name + ":ReaderConfig\n" + name + ":ResetConfig\n");
  agent.close_input();
  EXPECT_EQ(agent.remaining_lines(), (lines{"Ok:", "Ok:", "Ok:"}));
  EXPECT_EQ(agent.wait(), 0);
  const lines calls = file_lines(bundle.log);
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls.front(), "SetMarkerFunction main");
  EXPECT_EQ(calls.back(), "SetMarkerFunction null main");
  EXPECT_EQ(count_of(calls, "BeepNow main"), 1u);
  for (const std::string& call : calls) EXPECT_NE(call.find(" main"), std::string::npos) << call;
}

TEST(Process, WakesForItsScansAlone) {
#if !defined(__linux__) || defined(SANITIZED)
  GTEST_SKIP() << "needs Linux's count of context switches, and a plain build";
#endif
  for (const bool attached : {false, true}) {
    const probe_bundle bundle;
    agent_process::environment variables = {{"PROBE_LOG", bundle.log}};
    if (attached) variables["PROBE_READER"] = "1";
    agent_process agent(bundle.executable, variables);
    EXPECT_EQ(agent.ask("Global:Ping"), "Ok:") << "it has started";
    const auto polls = [&] { return count_of(file_lines(bundle.log), "GetQueuedID main"); };
    while (attached && polls() < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    // Until its threads have gone to sleep.
    std::uint64_t before = 0;
    while (before != context_switches(agent.pid())) {
      before = context_switches(agent.pid());
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const std::uint64_t polls_before = polls();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const std::uint64_t woken = context_switches(agent.pid()) - before;
    const std::uint64_t polled = polls() - polls_before;
    EXPECT_EQ(polled, attached ? 4u : 0u);
    EXPECT_LE(woken, polled + (attached ? 1 : 0));
  }
}

TEST(Process, SearchesEveryTenSecondsAndPollsFourTimesASecond) {
  bench b({"unplug", "part none"});
  EXPECT_EQ(b.agent->ask("Global:Ping"), "Ok:");
  ASSERT_TRUE(b.reader.wait_for_call("usbConnect", 1, patience));
  const auto first_search = clock::now();
  b.run("plug");
  b.await_reader();
  const std::chrono::duration<double> between = clock::now() - first_search;
  EXPECT_NEAR(between.count(), 10, 0.5);
  EXPECT_EQ(b.reader.call_count("usbConnect"), 2u);

  ASSERT_TRUE(b.reader.wait_for_call("GetQueuedID", 1, patience));
  const auto first_poll = clock::now();
  ASSERT_TRUE(b.reader.wait_for_call("GetQueuedID", 9, patience));
  const std::chrono::duration<double> eight_polls = clock::now() - first_poll;
  EXPECT_GE(eight_polls.count(), 1.99);
  EXPECT_LE(eight_polls.count(), 2.6);
}

TEST(Process, AnswersBetweenPollsAtOnce) {
  bench b;
  const std::string name = b.await_reader();
  std::vector<double> milliseconds;
  for (int round = 0; round < 101; ++round) {
    const auto start = clock::now();
    ASSERT_EQ(b.agent->ask(name + ":Beep short 1"), "Ok:");
    milliseconds.push_back(std::chrono::duration<double, std::milli>(clock::now() - start).count());
  }
  std::nth_element(milliseconds.begin(), milliseconds.begin() + 50, milliseconds.end());
  EXPECT_LT(milliseconds[50], 5);
}

TEST(Process, TakesCommandsWhileTheLibraryIsBusy) {
  bench b({"part none"});
  const std::string name = b.await_reader();
  b.run("hang BeepNow");
  b.agent->send_line(name + ":Beep short 1");
  ASSERT_TRUE(b.reader.wait_for_call("BeepNow", 1, patience));
  // More than any pipe holds: this returns only if the agent goes on reading.
  std::string flood;
  for (int i = 0; i < 20000; ++i) flood += "Global:Ping " + std::to_string(i) + "\n";
  b.agent->send(flood);
  b.run("release");
  EXPECT_EQ(b.agent->next_line(), "Ok:") << "the beep's answer comes first";
  for (int i = 0; i < 20000; ++i) {
    ASSERT_EQ(b.agent->next_line_but_cards(), "Ok:  " + std::to_string(i));
  }
}

TEST(Process, AnswersAHundredThousandCommandsInOrderAndEnds) {
  bench b({"unplug"});
  std::thread host([&] {
    std::string flood;
    for (int i = 0; i < 100000; ++i) flood += "Global:Ping " + std::to_string(i) + "\n";
    b.agent->send(flood);
    b.agent->close_input();
  });
  for (int i = 0; i < 100000; ++i) {
    const std::string line = b.agent->next_line();
    if (line != "Ok:  " + std::to_string(i)) {
      ADD_FAILURE() << line << " instead of the answer " << i;
      break;
    }
  }
  host.join();
  EXPECT_EQ(b.agent->remaining_lines(), lines{});
  EXPECT_EQ(b.agent->wait(), 0);
}

}  // namespace
