// Input and output that another thread can end, so that every thread can be joined.
#pragma once

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

 private:
  descriptor read_end, write_end;  // of a pipe that ends when this is cancelled
};

}  // namespace virtual_reader
