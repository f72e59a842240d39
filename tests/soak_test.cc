// The long run: a million polls and ten million commands, with memory and descriptors watched.
#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "process_figures.h"
#include "rig.h"

namespace {

TEST(Soak, MemoryAndDescriptorsStayConstant) {
  constexpr int commands_a_round = 1000000;
  constexpr int cards_a_round = 100000;
  rig r({"part none", "card hold 3AB1234/26"}, QUICK_AGENT, {{"SEARCH_MS", "1"}, {"POLL_MS", "0"}});
  r.agent->await_reader();
  std::uint64_t first_resident = 0;
  std::size_t first_descriptors = 0;
  for (int round = 1; round <= 10; ++round) {
    std::thread host([&] {
      std::string piece;
      for (int i = 0; i < 100; ++i) piece += "Global:Ping " + std::to_string(round) + "\n";
      for (int i = 0; i < commands_a_round / 100; ++i) r.agent->send(piece);
    });
    const std::string answer = "Ok:  " + std::to_string(round);
    std::string line;
    for (int answers = 0, cards = 0; answers < commands_a_round || cards < cards_a_round;) {
      line = r.agent->next_line();
      if (line != answer && line != "Card: 3AB1234") break;
      ++(line == answer ? answers : cards);
    }
    host.join();
    ASSERT_TRUE(line == answer || line == "Card: 3AB1234") << line;
    const std::uint64_t resident = resident_kib(r.agent->pid());
    const std::size_t descriptors = open_descriptors(r.agent->pid());
    std::printf("round %d: %ju KiB resident, %zu descriptors\n", round,
                static_cast<std::uintmax_t>(resident), descriptors);
    std::fflush(stdout);
    if (round == 1) first_resident = resident;
    if (round == 1) first_descriptors = descriptors;
    EXPECT_LE(resident, first_resident + first_resident / 4 + 512);
    EXPECT_EQ(descriptors, first_descriptors);
  }
  EXPECT_EQ(r.agent->finish(), 0);
}

}  // namespace
