#include "log_follower.h"

#include "wire.h"

namespace virtual_reader {

log_follower::log_follower(const event_log& followed, const std::function<void()>& on_events)
    : log(followed), worker(std::async(std::launch::async, [this, on_events] {
        const auto should_end = [this] { return is_ending.load(); };
        for (std::uint64_t next = 1, is_on = true; is_on;) {
          is_on = log.wait(next, never, should_end);
          next = log.end();
          on_events();
        }
      })) {}

bool log_follower::end(std::chrono::milliseconds limit) {
  is_ending = true;
  log.wake();
  return worker.wait_for(limit) == std::future_status::ready;
}

}  // namespace virtual_reader
