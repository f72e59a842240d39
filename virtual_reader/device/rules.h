// What shall go wrong with which call.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace virtual_reader {

struct rule {
  enum class kind { fail, vanish, delay, hang, say };

  kind what;
  std::string call;
  // Which of the calls since the rule was set it concerns, from the 1st on.
  std::uint64_t first = 1;
  std::uint64_t last = 1;
  std::int64_t error = 1;             // fail
  std::chrono::milliseconds time{0};  // delay
  std::string text;                   // say, up to `length` bytes as told to the agent, from the
  std::int64_t length = 0;            // library's thread or one of its own
  bool own_thread = false;

  static constexpr std::uint64_t always = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t seen = 0;
};

// What the rules say about one call.
struct verdict {
  bool fail = false, vanish = false, hang = false;
  std::int64_t error = 0;
  std::chrono::milliseconds delay{0};
  std::vector<rule> says;
};

// Guarded by its owner's lock.
class rule_book {
 public:
  void add(rule added) { rules.push_back(std::move(added)); }
  void clear() { rules.clear(); }
  std::size_t size() const { return rules.size(); }
  bool names(const std::string& call) const;

  // Counts the call, and strikes out the rules that are used up by it. Of several failures the
  // first counts, and those behind it wait for the next call.
  verdict judge(const std::string& call);

 private:
  std::vector<rule> rules;
};

}  // namespace virtual_reader
