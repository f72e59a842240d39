// How a run ends: the first who knows says so.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

namespace virtual_reader {

enum status { passed = 0, expectation_failed = 1, wrong_usage = 2, host_failed = 3, cut_off = 4 };

struct verdict {
  int status;
  std::string why;
};

class outcome {
 public:
  void set(int status, const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!first) first = {status, why};
    changed.notify_all();
  }
  bool is_set() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return first.has_value();
  }
  // Nothing if there was none within the limit; a limit of 0 is none.
  std::optional<verdict> wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto is_there = [this] { return first.has_value(); };
    if (limit.count() == 0) changed.wait(lock, is_there);
    if (limit.count() > 0) changed.wait_for(lock, limit, is_there);
    return first;
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  std::optional<verdict> first;
};

}  // namespace virtual_reader
