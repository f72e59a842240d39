// How a run ends: the first that knows sets it.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

namespace virtual_reader {

enum class result { passed, failed, error, command_failed, timed_out, interrupted };

struct verdict {
  result what = result::passed;
  std::string why = {};
  std::string details = {};  // lines: all that failed

  int exit_status() const {
    return what == result::interrupted ? 4 : static_cast<int>(what);  // as timed_out
  }
  // "PASSED", or another word, with the reason if there is one.
  std::string text() const {
    static const char* const words[] = {"PASSED",         "FAILED",    "ERROR",
                                        "COMMAND FAILED", "TIMED OUT", "INTERRUPTED"};
    return words[static_cast<int>(what)] + (why.empty() ? "" : ": " + why);
  }
};

// All members may be called from any thread.
class outcome {
 public:
  void set(result what, const std::string& why = "") {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!first) first = {what, why};
    changed.notify_all();
  }
  // Something that was expected did not happen. The run may go on, but cannot pass any more.
  void fail(const std::string& lines) {
    const std::lock_guard<std::mutex> lock(mutex);
    all_failures += lines;
    if (!first_failure.empty()) return;
    // Its first line, but for what leads to the next, and the word that the verdict has.
    first_failure = lines.substr(0, std::min(lines.find('\n'), lines.find("; since then:")));
    const std::string word = "FAILED: ";
    const std::size_t at = first_failure.find(word);
    if (at != first_failure.npos) first_failure.erase(at, word.size());
  }
  // The verdict on what has failed; PASSED if nothing has.
  verdict failure() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return {first_failure.empty() ? result::passed : result::failed, first_failure, all_failures};
  }
  bool is_set() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return first.has_value();
  }
  // Waits for it. If it is not set within the limit, it is result::timed_out; a limit of 0 is none.
  verdict wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex);
    const auto is_known = [this] { return first.has_value(); };
    if (limit.count() == 0) changed.wait(lock, is_known);
    if (!changed.wait_for(lock, limit, is_known)) {
      first = {result::timed_out, "after " + std::to_string(limit.count()) + " ms"};
    }
    return *first;
  }

 private:
  mutable std::mutex mutex;
  std::condition_variable changed;
  std::optional<verdict> first;
  std::string first_failure, all_failures;
};

}  // namespace virtual_reader
