// What the measuring program and the reader library of the benchmark share: one page of memory, a
// file whose path BENCH_DEVICE in the environment names.
#pragma once

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

struct device {
  std::atomic<int> attached;           // a reader is plugged in
  std::atomic<int> card;               // set: the next poll finds a card, and clears this
  std::atomic<std::int64_t> found_at;  // when it did: nanoseconds on the steady clock
  std::atomic<std::int64_t> polls;     // calls of GetQueuedID, ever
  std::atomic<int> busy;               // a beep has begun ...
  sem_t release;                       // ... and returns once this is posted
};

// Maps the page, or returns null when the environment names none.
inline device* open_device() {
  const char* const path = std::getenv("BENCH_DEVICE");
  const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (file < 0) return nullptr;
  void* const page = mmap(nullptr, sizeof(device), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  return page == MAP_FAILED ? nullptr : static_cast<device*>(page);
}
