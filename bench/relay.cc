// What the agent's shape costs by itself: as its twin, the yardstick of the agent. Like the agent
// it has a reading, a working and a writing thread, two locks with a condition variable each, one
// item at a time through the first and batches, written under the lock, through the second. It
// echoes lines and does nothing else.
//
//   relay         takes one item at a time and notifies for every line
//   relay twin    hands over as the agent does: it takes all items that wait at once, notifies for
//                 the first line of an empty queue or batch only, and its work has a deadline to
//                 wait for
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

bool is_twin = false;  // set before the threads start

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
  std::string begun;  // a line whose end is not read yet
  for (ssize_t size; (size = read(STDIN_FILENO, block, sizeof block)) > 0;) {
    const char* at = block;
    const char* const end = block + size;
    while (const void* found = std::memchr(at, '\n', static_cast<std::size_t>(end - at))) {
      const char* const line_feed = static_cast<const char*>(found);
      begun.append(at, line_feed);
      at = line_feed + 1;
      bool was_empty = false;
      {
        std::lock_guard<std::mutex> lock(queue_mutex);
        was_empty = queue.empty();
        queue.push_back(std::move(begun));
      }
      if (was_empty || !is_twin) queue_cond.notify_one();
      begun.clear();
    }
    begun.append(at, end);
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
  if (was_empty || !is_twin) batch_cond.notify_one();
}

void await_item(std::unique_lock<std::mutex>& lock) {
  const auto is_due = [] { return ended || !queue.empty(); };
  if (is_twin) {
    while (!queue_cond.wait_for(lock, std::chrono::seconds(10), is_due)) continue;
  } else {
    queue_cond.wait(lock, is_due);
  }
}

void work() {
  std::deque<std::string> taken;
  std::unique_lock<std::mutex> lock(queue_mutex);
  for (;;) {
    await_item(lock);
    if (queue.empty()) break;
    if (is_twin) {
      taken.swap(queue);
      lock.unlock();
      for (; !taken.empty(); taken.pop_front()) push_line(std::move(taken.front()));
    } else {
      std::string line = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      push_line(std::move(line));
    }
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

int main(int argc, char* argv[]) {
  is_twin = argc > 1 && std::strcmp(argv[1], "twin") == 0;
  std::thread reader(read_lines);
  std::thread writer(write_batches);
  work();
  reader.join();
  writer.join();
}
