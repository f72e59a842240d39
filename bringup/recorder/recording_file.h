// The file that a recording goes to.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

namespace bringup {

// Names the file, in the agent's environment; without it nothing is recorded.
constexpr const char recording_variable[] = "CARD_READER_RECORDING";

// Every member may be called from any thread, keeps errno, and throws nothing.
class recording_file {
 public:
  explicit recording_file(std::string about_the_library);

  // Whether an entry would be written: nothing has failed so far.
  bool is_on() const;
  // Writes one entry at the end of the file, in one piece. The first one makes the file; no file
  // that is there is overwritten. What fails is told once on standard error, and ends the
  // recording.
  void add(const std::string& text) noexcept;

 private:
  void open_file();
  void write_all(const std::string& text);

  const std::chrono::steady_clock::time_point beginning = std::chrono::steady_clock::now();
  const std::string comments;
  std::string path;
  mutable std::mutex mutex;
  // Guarded by mutex:
  bool on;
  int file = -1;
};

}  // namespace bringup
