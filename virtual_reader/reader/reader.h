// What a reader is and does, without the world around it: no thread, no lock, no socket.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "call.h"
#include "cards.h"
#include "configuration.h"
#include "event_log.h"
#include "fault.h"

namespace virtual_reader {

// Agents are told by the numbers of their connections; 0 is none. What happens to the reader goes
// into the record.
struct reader {
  explicit reader(event_log& written) : log(written) {}

  event_log& log;
  bool plugged = true;
  int holder = 0;  // the agent that holds it, from its usbConnect to its USBDisconnect or its end
  std::optional<std::string> part_number = "VR-1";
  std::optional<std::string> part_number_told;  // as it was when that agent connected
  card_queue queue;                             // each is fetched once, in order
  std::optional<card_id> held;                  // is fetched whenever no card is queued
  bool held_is_known = false;                   // the last fetch has found it, and it is recorded
  bool fetch_was_idle = false;                  // the last fetch told nothing new
  std::int64_t short_beeps = 0, long_beeps = 0;
  configuration stored = factory_defaults;
  std::string led = "auto";  // red, green, amber, off, or own when the reader itself rules over it
  fault_list faults;
  bool id_questions_wanted = false;  // calls of GetQueuedID_index, beyond those with a rule

  struct waiting_call {
    int agent;
    std::string name;
    std::chrono::steady_clock::time_point since;
    bool hangs;
  };
  std::deque<waiting_call> waiting;                             // that are delayed or hang
  std::uint64_t releases = 0;                                   // one more ends them all
  std::map<int, std::chrono::steady_clock::time_point> agents;  // that are there, and since when

  // Nothing to do if it is so already.
  void plug() { power(true); }
  void unplug() { power(false); }
  void hold(std::optional<card_id> card);  // or nothing, which takes the held one away
  // Takes the reader from that agent if it holds it.
  void release_from(int agent);
  // What a call does that nothing stands in the way of. Returns the error if it fails.
  std::optional<std::int64_t> run(call* asked);

 private:
  void power(bool on);
  void fetch_card(call* asked);
};

}  // namespace virtual_reader
