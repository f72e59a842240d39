// A recording played back: what the recorded library would answer to an agent's calls.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "call.h"
#include "fault.h"
#include "reader.h"
#include "recording.h"

namespace virtual_reader {

// Each call is answered by the first one of its name that was not played yet. A poll whose answer
// is an event to the application (a card, a failure) waits for the calls that were recorded before
// it, since the application may need longer for them than it did then. Where agent and recording
// part, the record says so; then, and at the end of the recording, the reader answers by itself.
class replay {
 public:
  explicit replay(std::vector<recorded_call> recorded);

  struct progress {
    bool has_ended = false;     // all of the recording was played
    bool has_diverged = false;  // an agent has made other calls
  };
  progress state() const { return {has_ended, has_diverged}; }

  // Prepares the reader for a call, and returns the faults for it.
  std::vector<fault> prepare(int agent, const call& asked, reader* playing);

 private:
  bool must_wait(std::size_t index, int agent, reader* playing);
  void go_on(int agent, const call& asked, reader* playing);
  void drop(std::size_t index);
  void part(int agent, reader* playing, const std::string& how);

  const std::vector<recorded_call> calls;
  // Of those that were not played yet: the indices by name, and all but polls.
  std::map<std::string, std::deque<std::size_t>> left;
  std::set<std::size_t> left_but_polls;
  const recorded_call* last_poll = nullptr;  // that was played
  bool in_step = true, has_ended = false, has_diverged = false;
  std::chrono::steady_clock::time_point waiting_since{};  // for the calls before a poll, if any
};

}  // namespace virtual_reader
