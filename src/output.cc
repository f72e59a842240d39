#include "output.h"

#include <cstring>
#include <utility>

#include "standard_streams.h"

namespace {

// Gathers a batch into few writes. A pipe takes at least 4 KiB at a time on every system, and
// Linux's default pipe 64 KiB.
class buffered_writer {
 public:
  void append(const char* bytes, std::size_t size) {
    if (size > sizeof buffer - used) flush();
    if (size >= sizeof buffer) {
      write_output(bytes, size);
      return;
    }
    std::memcpy(buffer + used, bytes, size);
    used += size;
  }

  void flush() {
    if (used > 0) write_output(buffer, used);
    used = 0;
  }

 private:
  char buffer[16 * 1024];
  std::size_t used = 0;
};

}  // namespace

void output_str_state::push_line(std::string text) {
  bool was_empty = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    was_empty = lines.empty();
    lines.push_back(std::move(text));
  }
  // The writer waits only on an empty batch, so only the first line must wake it.
  if (was_empty) cond.notify_one();
}

void output_str_state::request_stop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop.exchange(true);
  }
  cond.notify_one();
}

void output_str_state::loop() {
  std::unique_lock<std::mutex> lock(mutex);
  do {
    cond.wait(lock, [this] { return stop || !lines.empty(); });
    write_batch();
  } while (!stop);
}

void output_str_state::write_batch() {
  buffered_writer out;
  for (std::string& line : lines) {
    line.push_back('\n');
    out.append(line.data(), line.size());
  }
  out.flush();
  lines.clear();
}
