// A terminal at which verbs are typed: with editing, history and completion where the system has
// them, and with what the reader does above the line that is being typed.
#pragma once

#include <termios.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "cancellation.h"
#include "line_input.h"

namespace virtual_reader {

class terminal {
 public:
  terminal();   // of standard input and output; one for the process
  ~terminal();  // leaves it as it was
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  // The next line without its newline; nothing at the end of input, or if cancelled. For one
  // thread.
  std::optional<std::string> next_line();
  void cancel();  // from any thread
  // From any thread. Returns when it is shown, which takes as long as the terminal is stopped.
  void print(const std::string& lines, const cancellation& until);

 private:
  struct editor;  // the system's line editing

  std::string take_pending();

  line_input input;  // without line editing
  cancellation ending;
  termios at_start{};
  bool is_known = false;                // what the terminal was like
  const std::unique_ptr<editor> edits;  // null if there is none
  int wake_ends[2] = {-1, -1};          // a byte for each piece that is pending
  std::mutex mutex;
  std::condition_variable shown;
  // Guarded by mutex:
  bool is_editing = false;
  std::string pending;  // to be shown above the line
};

}  // namespace virtual_reader
