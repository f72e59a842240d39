// A terminal at which verbs are typed: with editing, history and completion where the system has
// them, and with what the reader does above the line that is being typed.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace virtual_reader {

class terminal {
 public:
  terminal();  // of standard input and output; one for the process
  ~terminal();
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  // The next line without its line feed, or nothing at the end of input. For one thread.
  std::optional<std::string> next_line();
  // From any thread. Returns when it is shown, which takes as long as the terminal is stopped.
  void print(const std::string& lines);
  // As it was at the start; when the process is about to end, from any thread.
  void restore() const;

 private:
  struct editor;  // the system's line editing

  std::string take_pending();

  const std::unique_ptr<editor> edits;  // null if there is none
  int wake_ends[2] = {-1, -1};          // a byte for each piece that is pending
  std::mutex mutex;
  std::condition_variable shown;
  // Guarded by mutex:
  bool is_editing = false;
  std::string pending;  // to be shown above the line
};

}  // namespace virtual_reader
