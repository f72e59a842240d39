// More of everything than any application will send, in a short time.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <thread>

#include "output.h"
#include "process_figures.h"
#include "rig.h"

namespace {

using lines = std::vector<std::string>;

// Sanitizers make a program some ten times slower.
#ifdef SANITIZED
constexpr int scale = 25;
#else
constexpr int scale = 1;
#endif

// Sends that many pings in large pieces while the caller reads.
void send_pings(agent_process& agent, int first, int count) {
  std::string piece;
  for (int i = first; i < first + count; ++i) {
    piece += "Global:Ping " + std::to_string(i) + "\n";
    if (piece.size() > 60000 || i == first + count - 1) {
      agent.send(piece);
      piece.clear();
    }
  }
}

// Reads their answers; stops at the first that is wrong.
void expect_pongs(agent_process& agent, int first, int count) {
  for (int i = first; i < first + count; ++i) {
    std::string line = agent.next_line();
    while (line.rfind("Card: ", 0) == 0) line = agent.next_line();
    if (line == "Ok:  " + std::to_string(i)) continue;
    ADD_FAILURE() << line << " instead of the answer " << i;
    return;
  }
}

TEST(Stress, ReplugsLoseNoCardAndRepeatNoName) {
  rig r({"part none"}, QUICK_AGENT, {{"SEARCH_MS", "1"}, {"POLL_MS", "1"}});
  std::uint64_t number = std::stoull(r.agent->await_reader().substr(3));
  for (int i = 0; i < 1000 / scale; ++i) {
    const std::string card = std::to_string(100000 + i);
    r.run("card queue " + card);
    ASSERT_EQ(r.agent->next_line(), "Card: " + card);
    r.run("replug");
    ASSERT_EQ(r.agent->next_line(), "Reader: Dev" + std::to_string(++number));
  }
  EXPECT_EQ(r.agent->finish(), 0);
}

// Polls go on between the commands, each with a card to report.
TEST(Stress, CommandFloodIsAnsweredInOrderInConstantMemory) {
  const int flood = 5000000 / scale;
  rig r({"part none", "card hold 3AB1234/26"}, QUICK_AGENT, {{"SEARCH_MS", "1"}, {"POLL_MS", "0"}});
  r.agent->await_reader();
  const std::size_t descriptors = open_descriptors(r.agent->pid());
  std::uint64_t resident[3] = {};
  for (std::uint64_t& after_flood : resident) {
    // All are pending at once, so that each flood needs as much as any other.
    send_pings(*r.agent, 0, flood);
    expect_pongs(*r.agent, 0, flood);
    after_flood = resident_kib(r.agent->pid());
    std::printf("%ju KiB resident\n", static_cast<std::uintmax_t>(after_flood));
  }
#ifndef SANITIZED
  EXPECT_LE(resident[2], resident[0] + 16 * 1024) << "3 bytes a command are lost";
#endif
  EXPECT_EQ(open_descriptors(r.agent->pid()), descriptors);
  EXPECT_EQ(r.agent->finish(), 0);
}

TEST(Stress, ApplicationThatStopsReadingLosesNothing) {
  const int count = 1000000 / scale;
  rig r({"unplug"});
  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration sending{};
  std::thread application([&] {
    send_pings(*r.agent, 0, count);
    sending = std::chrono::steady_clock::now() - start;
  });
  std::this_thread::sleep_for(std::chrono::seconds(5));
  expect_pongs(*r.agent, 0, count);
  application.join();
  EXPECT_LT(sending, std::chrono::seconds(5)) << "its sending was held up";
  EXPECT_EQ(r.agent->finish(), 0);
}

// A writer that is about to wait hears of a stop all the same.
TEST(Stress, StopRequestEndsEveryWriter) {
  for (int i = 0; i < 2000 / scale; ++i) {
    output_str_state out;
    std::atomic<int> started{0};
    const std::future<void> ended = std::async(std::launch::async, [&] {
      started = 1;
      out.loop();
    });
    while (!started) std::this_thread::yield();
    for (started = -(i % 64); started < 0;) ++started;  // the writer gets on for a while
    out.request_stop();
    if (ended.wait_for(patience) == std::future_status::timeout) {
      ADD_FAILURE() << "writer " << i << " waits for ever";
      out.request_stop();
      break;
    }
  }
}

}  // namespace
