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

#include "calls.h"
#include "card_id.h"
#include "rules.h"
#include "server.h"
#include "socket_path.h"
#include "wire.h"

namespace virtual_reader {

enum class tracing { off, quiet, on };  // quiet leaves out polls that find no card

// Every public member may be called from any thread, and none waits for a call that is delayed or
// hangs. An agent holds the reader from its usbConnect to its USBDisconnect, its end, or `unplug`.
class device {
 public:
  // Receives lines like "beep short 2" or "led red"; may be null. Called from several threads,
  // with no lock held.
  using event_function = std::function<void(const std::string& line)>;

  // Listening and plugged in once constructed. Throws std::runtime_error with one clear line.
  device(std::string socket_path, event_function on_event, bool plugged_in = true);
  ~device();  // pulls the reader out, and removes the socket

  void plug();
  void unplug();
  // What the reader tells at the next connection; nothing for none.
  void set_part_number(std::optional<std::string> text);
  void queue_cards(const std::vector<card_id>& ids);  // each is fetched once, in order
  void hold_card(std::optional<card_id> id);          // is fetched whenever no card is queued
  void add_rule(rule added);
  void clear_rules();
  void release();  // lets the calls go on that hang
  void trace(tracing mode);

  // All calls, or the last hundred thousand, like "BeepNow 2 0 -> 1"; each is there before the
  // agent has its result. A call of GetQueuedID_index shows only when traced or named in a rule.
  std::vector<std::string> calls() const;
  std::uint64_t call_count(const std::string& name) const;
  // False if the calls so named since construction were fewer than `count` all that time. A call
  // counts once it has had its effect; one that is delayed or hangs, when it came.
  bool wait_for_call(const std::string& name, std::uint64_t count, std::chrono::milliseconds limit);
  // False if not all queued cards were fetched in that time.
  bool wait_for_cards(std::chrono::milliseconds limit);
  void wait(std::chrono::milliseconds time);
  // From now on the three functions above return at once.
  void end_waits();

  struct state {
    bool plugged = true;
    int holder = -1;  // the socket of the agent that holds the reader
    std::optional<std::string> part_number = "VR-1";
    std::deque<card_id> queue;
    std::optional<card_id> held;
    std::uint64_t short_beeps = 0, long_beeps = 0;
    record led{};  // as it shows
    configuration stored = factory_defaults();
    tracing traced = tracing::off;
    std::size_t rules = 0;
  };
  state look() const;

 private:
  struct outcome {
    std::int64_t result = 0;
    std::int64_t error = 0;
    std::vector<std::int64_t> values;
    std::optional<std::string> text;
    std::vector<std::string> events;
  };

  void serve(int socket);
  bool answer(int socket, const message& question);
  outcome carry_out(int socket, const std::string& name, const std::int64_t* arguments);
  void note(const call_kind& kind, const std::int64_t* numbers, outcome* done);
  void tell(const std::vector<std::string>& events) const;
  void power(bool on);
  template <typename T>
  bool wait_until(std::chrono::milliseconds limit, T condition);

  const event_function on_event;
  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  state now;
  std::optional<std::string> part_number_of_connection;
  rule_book rules;
  std::deque<std::string> log;
  std::map<std::string, std::uint64_t> counts;
  std::uint64_t releases = 0;
  bool waits_ended = false;
  bool ending = false;

  std::unique_ptr<server> listening;
};

// What an LED record makes the LED show: "red", "green", "amber", "off", or "own" when the reader
// rules over it.
std::string led_text(const record& led);

}  // namespace virtual_reader
