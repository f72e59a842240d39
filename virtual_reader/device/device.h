// The virtual reader itself: what a reader is and does, at the far end of the library's socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "configuration.h"
#include "entrance.h"

namespace virtual_reader {

// The names of all library calls, with a blank between them.
extern const std::string call_names;
bool is_call(const std::string& name);

struct card_id {
  std::array<std::int64_t, 33> values{};  // its 32 bytes, the least significant first, and its bits
  std::string text;                       // as the verbs have it
};

// What shall go wrong with which call.
struct rule {
  enum class kind { fail, vanish, delay, say } what;
  std::string call;
  // Which of the calls since the rule was set it concerns, counted from 1.
  std::uint64_t first = 1, last = 1;
  std::int64_t error = 1;             // fail
  std::chrono::milliseconds time{0};  // delay, unless released before
  std::string text{};                 // say
  std::int64_t length = 0;            // say: told to the agent, at most the text's
  bool own_thread = false;            // say
  std::uint64_t seen = 0;
};

// A call, and what comes of it.
struct call {
  int socket;
  std::string name;
  std::int64_t kind, own_error;
  std::vector<std::int64_t> arguments, extras;
  message result{};  // the reply, but for its head
};

enum class tracing { off, quiet, on };  // quiet leaves out polls that find no card

// Every public member may be called from any thread, and none waits for a call that is delayed. An
// agent holds the reader from its usbConnect to its USBDisconnect, its end, or unplug().
class device {
 public:
  struct state {
    bool plugged = true;
    int holder = -1;  // the socket of the agent that holds the reader
    std::optional<std::string> part_number = "VR-1";
    std::optional<std::string> part_number_told;  // as it was when that agent connected
    std::deque<card_id> queue;                    // each is fetched once, in order
    std::optional<card_id> held;                  // is fetched whenever no card is queued
    bool card_found = false;                      // by the last fetch
    std::int64_t short_beeps = 0, long_beeps = 0;
    configuration stored = factory_defaults;
    std::string led = "own";  // red, green, amber, off, or own when the reader itself rules over it
    std::vector<rule> faults;
    std::uint64_t releases = 0;  // one more ends all delays that have begun
    tracing traced = tracing::off;
    std::map<std::string, std::uint64_t> counts;  // of the calls, by name
    std::vector<std::string> events;              // to be told when the change is complete

    // Nothing to do if it is so already.
    void power(bool on, const std::string& event);
    // Takes the reader from that agent if it holds it.
    void release_from(int socket);
    // What the rules have for a call that comes now. Rules that are used up by it go; of several
    // failures that are due the first counts, and those behind it wait for the next call.
    std::vector<rule> take_due(const std::string& name);
    // What a call does that nothing stands in the way of. Returns the error if it fails.
    std::optional<std::int64_t> carry_out(call* asked);
  };

  // Receives lines like "beep short 2" or "led red", in the order of what happened; may be null.
  // Called from several threads, one at a time. It must not use the device.
  using event_function = std::function<void(const std::string& line)>;

  // Listening and plugged in once constructed. Throws std::runtime_error with one clear line.
  device(const std::string& socket_path, event_function on_event, bool plugged_in = true);
  ~device() { end(); }
  // Pulls the reader out for good and removes the socket. To be called by one thread.
  void end();

  void plug() {
    change([](state& s) { s.power(true, "plugged in"); });
  }
  void unplug() {
    change([](state& s) { s.power(false, "unplugged"); });
  }
  void add_rule(const rule& added) {
    change([&](state& s) { s.faults.push_back(added); });
  }

  state look() const;
  void change(const std::function<void(state&)>& make_change);
  // False if that did not hold at any time up to the limit.
  bool wait(std::chrono::milliseconds limit, const std::function<bool(state&)>& holds);

  // The last hundred thousand calls, like "BeepNow 2 0 -> 1"; each is there before the agent has
  // its result. A call of GetQueuedID_index shows only when traced or named in a rule.
  std::vector<std::string> calls() const;
  // A call counts once it has had its effect; one that is delayed, when it came.
  std::uint64_t call_count(const std::string& name) const { return look().counts[name]; }
  bool wait_for_call(const std::string& name, std::uint64_t count,
                     std::chrono::milliseconds limit) {
    return wait(limit, [&](state& s) { return s.counts[name] >= count; });
  }

 private:
  void accept_agents();
  void serve(int socket);
  std::string converse(int socket);
  bool answer(call* asked);
  void complete_change();

  const event_function on_event;
  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  state now;
  std::deque<std::string> log;
  std::set<int> links;  // the sockets of all agents, each with a thread of its own
  bool ending = false;

  std::unique_ptr<entrance> door;
  std::thread acceptor;
};

}  // namespace virtual_reader
