// The reader of the stub library: a page of memory that the agent and its observer share. It
// costs as good as nothing, and sees which thread calls.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

struct stub_reader {
  std::atomic<int> attached;           // set: a reader is plugged in
  std::atomic<int> card;               // set: the next poll finds a card, and clears this
  std::atomic<std::int64_t> found_at;  // when it did: nanoseconds on the steady clock
  std::atomic<std::int64_t> polls;     // calls of GetQueuedID so far
  std::atomic<int> beeps_held;         // set: beeps don't return until this is 0 again
  std::atomic<int> beeping;            // a beep has begun
  std::atomic<int> calls_off_main;     // calls so far that were not on the main thread
  std::atomic<int> calls_unheard;      // while no marker function was set, but to set it
  std::atomic<int> removals;           // of the marker function
  std::atomic<int> led_fields_set;     // which fields the last SetLEDCtrl had not at 0, bit by bit
};

// Names the file that holds the page, in the environment of the agent; without it there is no
// reader.
inline constexpr const char stub_reader_variable[] = "STUB_READER";

// Maps that file, made if there is none and all zeros then. Null if it can't be.
inline stub_reader* map_stub_reader(const char* path) {
  const int file = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* const page =
      file < 0 || ftruncate(file, sizeof(stub_reader)) != 0
          ? MAP_FAILED
          : mmap(nullptr, sizeof(stub_reader), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (file >= 0) close(file);
  return page == MAP_FAILED ? nullptr : static_cast<stub_reader*>(page);
}
