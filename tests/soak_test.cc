// The long run: a million polls and ten million commands, with memory and descriptors watched.
#include <gtest/gtest.h>

#include <thread>

#include "process_figures.h"
#include "rig.h"

namespace {

constexpr int rounds = 10;
constexpr int commands_a_round = 1000000;
constexpr int cards_a_round = 100000;

TEST(Soak, KeepsMemoryAndDescriptorsFlat) {
  rig r({"card hold 3AB1234/26"}, QUICK_AGENT, {{"SEARCH_MS", "1"}, {"POLL_MS", "0"}});
  r.agent->await_reader();
  const pid_t pid = r.agent->pid();
  long first_resident = 0;
  std::size_t first_descriptors = 0;
  for (int round = 0; round < rounds; ++round) {
    std::thread host([&] {
      std::string piece;
      for (int i = 0; i < 100; ++i) piece += "Global:Ping " + std::to_string(round) + "\n";
      for (int i = 0; i < commands_a_round / 100; ++i) r.agent->send(piece);
    });
    const std::string answer = "Ok:  " + std::to_string(round);
    int answers = 0;
    for (int cards = 0; answers < commands_a_round || cards < cards_a_round;) {
      const std::string line = r.agent->next_line();
      if (line == answer) {
        ++answers;
      } else if (line == "Card: 3AB1234") {
        ++cards;
      } else if (line.rfind("Log: Reader part number", 0) != 0) {
        ADD_FAILURE() << line;
        host.detach();
        return;
      }
    }
    host.join();
    const long resident = resident_kib(pid);
    const std::size_t descriptors = open_descriptors(pid);
    std::printf("round %d: %ld KiB resident, %zu descriptors\n", round + 1, resident, descriptors);
    std::fflush(stdout);
    if (round == 0) {
      first_resident = resident;
      first_descriptors = descriptors;
    }
    EXPECT_LE(resident, first_resident + first_resident / 4 + 512);
    EXPECT_EQ(descriptors, first_descriptors);
  }
  EXPECT_EQ(r.agent->finish(), 0);
}

}  // namespace
