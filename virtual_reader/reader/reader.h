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

// Agents are known by the numbers of their connections; 0 is none. What happens to the reader is
// logged.
struct reader {
  explicit reader(event_log& written) : log(written) {}

  event_log& log;
  bool plugged = true;
  int holder = 0;  // the agent that holds it, from its usbConnect to its USBDisconnect or its end
  std::optional<std::string> part_number = "VR-1";
  std::optional<std::string> connected_part_number;  // as it was when that agent connected
  std::deque<card_id> queue;                         // each is fetched once, in order
  std::optional<card_id> held;                       // is fetched whenever no card is queued
  bool held_is_known = false;  // the last fetch has found it, and it is recorded
  std::int64_t short_beeps = 0, long_beeps = 0;
  configuration stored = factory_defaults;
  std::string led = "auto";  // red, green, amber, off, or auto: the reader controls it
  std::string shown_led() const { return plugged ? led : "dark"; }
  fault_list faults;
  bool id_questions_wanted = false;  // calls of GetQueuedID_index, beyond those with a fault

  struct waiting_call {
    int agent;
    std::string name;
    std::chrono::steady_clock::time_point since;
    bool hangs;
  };
  std::deque<waiting_call> waiting;  // that are delayed or hang
  std::uint64_t releases = 0;        // one more ends them all
  // What a library keeps of an agent that is attached.
  struct agent_state {
    std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();
    std::int64_t last_error = 0;
    std::optional<configuration> read;  // by ReadCfg, for Gets, Sets and WriteCfg
    std::array<std::int64_t, 33> id{};  // fetched last: its 32 bytes, then its length in bits
    bool was_idle = false;              // that fetch found nothing new
  };
  std::map<int, agent_state> agents;

  // Nothing to do if it is so already.
  void plug() { power(true); }
  void unplug() { power(false); }
  void hold(std::optional<card_id> card);  // or nothing, which takes the held one away
  // Takes the reader from that agent if it holds it.
  void release_from(int agent);
  // Runs a call of an agent up to its result, or lets it fail with that error. Returns whether it
  // was a poll that found nothing new.
  bool run(int agent, call* asked, std::optional<std::int64_t> error);

 private:
  void power(bool on);
  std::optional<std::int64_t> effect(int agent, call* asked);
  void fetch_card(int agent);
};

}  // namespace virtual_reader
