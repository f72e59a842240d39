// Follows the event log on a thread of its own.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include "event_log.h"

namespace virtual_reader {

class log_follower {
 public:
  // Calls the function after new events, for as long as this exists and once at the end.
  log_follower(const event_log& log, const std::function<void()>& on_events);
  // Waits for that.
  ~log_follower() { end(std::chrono::milliseconds(0)); }
  log_follower(const log_follower&) = delete;
  log_follower& operator=(const log_follower&) = delete;

  // Lets it come to its end. False if that takes longer.
  bool end(std::chrono::milliseconds limit);

 private:
  std::atomic<bool> is_ending{false};
  const event_log& log;
  std::future<void> worker;  // joined on destruction
};

}  // namespace virtual_reader
