// The virtual reader as agents and verbs share it: its state under one lock, and its event log.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "reader.h"
#include "replay.h"

namespace virtual_reader {

// Every public member may be called from any thread, and none waits for a call that is delayed.
class device {
 public:
  // Answers agents as the recorded library did, if there is a recording.
  explicit device(bool is_plugged = true, std::vector<recorded_call> recording = {});

  // To be read without any lock.
  event_log log;

  // What `look` and `change` do with the reader is one step for all others.
  template <typename F>
  auto read(const F& look) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return look(static_cast<const reader&>(state));
  }
  template <typename F>
  void modify(const F& change) {
    const std::lock_guard<std::mutex> lock(mutex);
    change(state);
    changed.notify_all();
  }

  // How many agents have attached since the start.
  int attached_count() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return attached;
  }
  // How far the recording was played; nothing of both without one.
  replay::progress replay_progress() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return playing ? playing->state() : replay::progress{};
  }

  // For the server. How an agent is answered:
  struct connection {
    std::function<bool(const std::string& line)> send;  // false if the agent does not take it
    std::function<bool()> is_closed;
  };
  // An agent attaches and gets a number, calls, and detaches; `fault` is what it did wrong, if
  // anything. Or it is refused.
  int attach(const connection& to);
  void detach(int agent, const std::string& fault);
  void refuse(const std::string& why);
  // Answers the call. Returns nothing, or that the link is to be cut and what the agent did wrong,
  // if anything.
  std::optional<std::string> answer(const connection& to, int agent, call asked);
  // Calls that are delayed, and waits for events, check again whether to go on.
  void wake();
  // Ends all calls that are delayed or hang, now and later, without an answer.
  void cancel();

 private:
  bool wait_out(const connection& to, std::chrono::milliseconds time, std::uint64_t releases);

  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  reader state{log};
  std::optional<replay> playing;
  std::map<int, connection> connections;  // of the agents
  int last_agent = 0, attached = 0;
  bool is_cancelled = false;
};

}  // namespace virtual_reader
