// What shall go wrong with which call.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace virtual_reader {

struct rule {
  enum class kind { fail, vanish, delay, hang, say } what;
  std::string call;
  // Which of the calls since the rule was set it concerns, counted from 1.
  std::uint64_t first = 1, last = 1;
  std::int64_t error = 1;             // fail
  std::chrono::milliseconds time{0};  // delay
  std::string text;                   // say
  std::int64_t length = 0;            // say: told to the agent, at most the text's
  bool own_thread = false;            // say
  std::uint64_t seen = 0;
};

// What the rules say about one call.
struct verdict {
  bool fail = false, vanish = false, hang = false;
  std::int64_t error = 0;
  std::chrono::milliseconds delay{0};
  std::vector<rule> says;
};

// Counts the call, and strikes out the rules that are used up by it. Of several failures that are
// due the first counts, and those behind it wait for the next call.
verdict judge(std::vector<rule>* rules, const std::string& call);

}  // namespace virtual_reader
