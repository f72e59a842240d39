// Work items, and the queue and loop that run them one at a time on the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <string_view>

// As a reader's name: none is attached. As a work item's target: any reader, or none.
inline constexpr std::string_view global_reader = "Global";

// The result of a work item. The application sees "Ok" or "Error", then ": " and the message, or a
// lone
// ":" when the message is empty.
struct action_result {
  bool ok;
  std::string message;
};

// A piece of work for the main thread: a command, a scan, or the end. It is created by its
// producer, moved into the queue by `enqueue`, run at most once by the loop and then destroyed.
struct action {
  action() = default;
  action(std::string_view target, bool is_silent) : reader(target), silent(is_silent) {}
  action(const action&) = delete;
  action& operator=(const action&) = delete;

  // Does the work, on the main thread with no lock held. Failure is a result, never an exception.
  virtual action_result execute_impl() = 0;
  virtual ~action() = default;

  std::string reader{global_reader};  // the reader it is meant for
  bool silent = false;  // the loop writes no line for it, not even that it was for another reader
};

using action_ptr = std::unique_ptr<action>;

// The queue of work items and the state of the reader. There is one instance (see globals.h).
struct card_reader_state {
  using time_point = std::chrono::time_point<std::chrono::steady_clock, std::chrono::nanoseconds>;

  // Hands work to the main thread. Any thread, with neither this lock nor the output channel's
  // held.
  void enqueue(action_ptr item);

  // The work loop: runs the items in the order of their arrival and, when idle, a scan whenever the
  // last one's interval has passed. Main thread. Returns when `stop` is set and the queue is empty.
  void loop();

  std::mutex mutex;
  std::condition_variable cond;    // notified when the queue fills; the loop is its only waiter
  std::queue<action_ptr> actions;  // guarded by mutex

  // The rest belongs to the main thread alone: to the loop and to the items that it runs.
  std::string reader_name{global_reader};
  // The last number given to a connection. Starts from the clock, so that names differ between
  // runs.
  std::uint64_t device_counter = static_cast<std::uint64_t>(std::time(nullptr)) * 1000;
  bool stop = false;
  time_point last_scan = time_point::min();  // written by the scans; min: never
  std::chrono::nanoseconds reader_scan_interval = std::chrono::seconds(10);
  std::chrono::nanoseconds card_scan_interval = std::chrono::milliseconds(250);
  std::int16_t device_type_search = 0;  // for the library's SetDevTypeSrch
};
