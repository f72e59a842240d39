// What the measuring program and the reader library of the benchmark share: one page of memory, a
// file whose path the environment names.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>

inline constexpr const char device_variable[] = "BENCH_DEVICE";

struct device {
  std::atomic<int> attached;           // a reader is plugged in
  std::atomic<int> card;               // set: the next poll finds a card, and clears this
  std::atomic<std::int64_t> found_at;  // when it did: nanoseconds on the steady clock
  std::atomic<std::int64_t> polls;     // calls of GetQueuedID, ever
  std::atomic<int> busy;               // a beep has begun ...
  sem_t release;                       // ... and returns once this is posted
};

// Maps the page, or returns null when the environment names none.
device* open_device();
