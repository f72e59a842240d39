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
#include <string>
#include <vector>

#include "card_id.h"
#include "configuration.h"
#include "rules.h"
#include "server.h"
#include "socket_path.h"

namespace virtual_reader {

enum class tracing { off, quiet, on };  // quiet leaves out polls that find no card

// The names of all library calls, with a blank between them.
extern const std::string call_names;
bool is_call(const std::string& name);

// Every public member may be called from any thread, and none waits for a call that is delayed or
// hangs. An agent holds the reader from its usbConnect to its USBDisconnect, its end, or unplug().
class device {
 public:
  struct state {
    bool plugged = true;
    int holder = -1;  // the socket of the agent that holds the reader
    std::optional<std::string> part_number = "VR-1";  // told from the next connection on
    std::deque<card_id> queue;                        // each is fetched once, in order
    std::optional<card_id> held;                      // is fetched whenever no card is queued
    std::int64_t short_beeps = 0, long_beeps = 0;
    configuration stored = factory_defaults;
    record led = factory_defaults[led_record];  // as it shows
    std::size_t rules = 0;                      // how many are set
    tracing traced = tracing::off;
  };

  // Receives lines like "beep short 2" or "led red"; may be null. Called from several threads,
  // with no lock held.
  using event_function = std::function<void(const std::string& line)>;

  // Listening and plugged in once constructed. Throws std::runtime_error with one clear line.
  device(const std::string& socket_path, event_function on_event, bool plugged_in = true);
  ~device();
  // Pulls the reader out for good and removes the socket. To be called by one thread.
  void end();

  void plug();
  void unplug();
  void release();  // lets the calls go on that hang

  void add_rule(rule added);
  void clear_rules();

  state look() const;
  // For all of the state but `plugged`, `holder` and `rules`.
  void change(const std::function<void(state&)>& make_change);

  // The last hundred thousand calls, like "BeepNow 2 0 -> 1"; each is there before the agent has
  // its result. A call of GetQueuedID_index shows only when traced or named in a rule.
  std::vector<std::string> calls() const;
  std::uint64_t call_count(const std::string& name) const;
  // False if the calls so named since construction stayed fewer than `count` all that time. A call
  // counts once it has had its effect; one that is delayed or hangs, when it came.
  bool wait_for_call(const std::string& name, std::uint64_t count, std::chrono::milliseconds limit);
  // False if not all queued cards were fetched in that time.
  bool wait_for_cards(std::chrono::milliseconds limit);

 private:
  struct question;
  struct outcome;

  void serve(int socket);
  bool answer(const question& asked);
  outcome carry_out(const question& asked);
  void note(const question& asked, outcome* done);
  void power(bool on);
  void set_power(bool on);
  void tell(const std::vector<std::string>& events) const;

  const event_function on_event;
  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  state now;
  std::vector<rule> rules;
  std::optional<std::string> part_number_of_connection;
  std::deque<std::string> log;
  std::map<std::string, std::uint64_t> counts;
  std::uint64_t releases = 0;
  bool ending = false;

  std::unique_ptr<server> listening;
};

}  // namespace virtual_reader
