// Input and output that another thread can end, so that every thread can be joined.
#pragma once

#include <functional>
#include <string>

#include "wire.h"

namespace virtual_reader {

// Not yet cancelled on construction. All members may be called from any thread.
class cancellation {
 public:
  cancellation();  // throws std::system_error if no descriptor is left
  void cancel();   // for good
  bool is_cancelled() const;

  enum class direction { input, output };
  // Waits until the descriptor, if it is none below 0, is ready, or has an error. False if
  // cancelled, before or meanwhile, or if that took too long.
  bool wait_for(int descriptor, direction wanted, moment until = never) const;

  // Writes all of it, in pieces that a pipe takes whole. False if cancelled, too late, or if the
  // descriptor takes no more.
  bool write_all(int descriptor, const std::string& bytes, moment until = never) const;

  // Reads to the end of input, or until cancelled. Hands over each line without its newline, and
  // then the bytes as they came. Of a line that is longer, one byte more is handed over.
  using text_function = std::function<void(const std::string&)>;
  void read_lines(int descriptor, std::size_t longest, const text_function& on_line,
                  const text_function& on_bytes) const;

 private:
  descriptor read_end, write_end;  // of a pipe that ends when this is cancelled
};

}  // namespace virtual_reader
