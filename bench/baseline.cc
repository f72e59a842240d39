// The baseline that the agent is measured against: what its shape costs by itself. Like the agent
// it has a reading, a working and a writing thread, two locks with a condition variable each, and
// hands over as the agent does: the worker takes all waiting items at once and waits with a
// deadline; only the first item of an empty queue and the first line of an empty batch wake
// anybody; batches are written under the lock. It echoes lines and does nothing else.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex queue_mutex;
std::condition_variable queue_cond;
std::deque<std::string> queue;
bool ended = false;  // guarded by queue_mutex

std::mutex batch_mutex;
std::condition_variable batch_cond;
std::vector<std::string> batch;
bool stopped = false;  // guarded by batch_mutex

void read_lines() {
  static char block[16 * 1024];
  std::string partial;  // a line whose end is not read yet
  for (ssize_t size; (size = read(STDIN_FILENO, block, sizeof block)) > 0;) {
    const char* at = block;
    const char* const end = block + size;
    while (const void* found = std::memchr(at, '\n', static_cast<std::size_t>(end - at))) {
      const char* const newline = static_cast<const char*>(found);
      partial.append(at, newline);
      at = newline + 1;
      bool was_empty = false;
      {
        std::lock_guard<std::mutex> lock(queue_mutex);
        was_empty = queue.empty();
        queue.push_back(std::move(partial));
      }
      if (was_empty) queue_cond.notify_one();
      partial.clear();
    }
    partial.append(at, end);
  }
  {
    std::lock_guard<std::mutex> lock(queue_mutex);
    ended = true;
  }
  queue_cond.notify_one();
}

void push_line(std::string&& line) {
  bool was_empty = false;
  {
    std::lock_guard<std::mutex> lock(batch_mutex);
    was_empty = batch.empty();
    batch.push_back(std::move(line));
  }
  if (was_empty) batch_cond.notify_one();
}

void await_item(std::unique_lock<std::mutex>& lock) {
  const auto is_due = [] { return ended || !queue.empty(); };
  while (!queue_cond.wait_for(lock, std::chrono::seconds(10), is_due)) continue;
}

void work() {
  std::deque<std::string> taken;
  std::unique_lock<std::mutex> lock(queue_mutex);
  for (;;) {
    await_item(lock);
    if (queue.empty()) break;
    taken.swap(queue);
    lock.unlock();
    for (; !taken.empty(); taken.pop_front()) push_line(std::move(taken.front()));
    lock.lock();
  }
  {
    std::lock_guard<std::mutex> batch_lock(batch_mutex);
    stopped = true;
  }
  batch_cond.notify_one();
}

void write_all(const char* at, std::size_t size) {
  while (size > 0) {
    const ssize_t count = write(STDOUT_FILENO, at, size);
    if (count < 0) return;
    at += count;
    size -= static_cast<std::size_t>(count);
  }
}

void write_batches() {
  static char buffer[16 * 1024];
  std::unique_lock<std::mutex> lock(batch_mutex);
  do {
    batch_cond.wait(lock, [] { return stopped || !batch.empty(); });
    std::size_t used = 0;
    for (const std::string& line : batch) {
      if (line.size() >= sizeof buffer - used) {
        write_all(buffer, used);
        used = 0;
      }
      if (line.size() >= sizeof buffer) {
        write_all(line.data(), line.size());
      } else {
        std::memcpy(buffer + used, line.data(), line.size());
        used += line.size();
      }
      buffer[used++] = '\n';
    }
    write_all(buffer, used);
    batch.clear();
  } while (!stopped);
}

}  // namespace

int main() {
  std::thread reader(read_lines);
  std::thread writer(write_batches);
  work();
  reader.join();
  writer.join();
}
