// What shall go wrong with which call.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace virtual_reader {

struct fault {
  enum class kind { fail, vanish, delay, hang, say } what;
  std::string call;
  // Which calls since the fault was set it concerns, counted from 1.
  static constexpr std::uint64_t for_ever = UINT64_MAX;
  // A delay lasts so long at most, and a hang so long.
  static constexpr std::chrono::milliseconds longest = std::chrono::hours(24);
  std::uint64_t first = 1, last = 1;
  std::int64_t error = 1;             // fail
  std::chrono::milliseconds time{0};  // delay and hang, unless released before
  std::string text{};                 // say
  std::int64_t length = 0;            // say: as the agent gets it, at most the text's
  bool own_thread = false;            // say
  std::uint64_t seen = 0;
  std::uint64_t id = 0;  // given by fault_list::add
};

// Like "fail BeepNow error 3".
std::string to_text(const fault&);

class fault_list {
 public:
  // A delay takes the place of the call's delay before it.
  void add(fault added);
  void clear() { all.clear(); }
  void clear(const std::string& call);
  void clear(std::uint64_t id);

  // The faults due for the next call. Those that it uses up are dropped. Of several failures
  // that begin with the next call one strikes, the others wait for the calls after it; so do hangs.
  std::vector<fault> take_due(const std::string& call);
  bool concern(const std::string& call) const;
  const std::vector<fault>& list() const { return all; }

 private:
  std::vector<fault> all;
  std::uint64_t last_id = 0;
};

}  // namespace virtual_reader
