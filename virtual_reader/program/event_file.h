// The event log as a file, one JSON object a line.
#pragma once

#include <atomic>
#include <ostream>
#include <thread>

#include "event_log.h"

namespace virtual_reader {

// Writes each event but idle polls as it comes, on a thread of its own, for as long as it exists.
class event_file {
 public:
  // Both must outlive this object; nothing else writes to the file meanwhile.
  event_file(const event_log& log, std::ostream& file);
  ~event_file();  // when all is written
  event_file(const event_file&) = delete;
  event_file& operator=(const event_file&) = delete;

 private:
  std::atomic<bool> is_ending{false};
  const event_log& log;
  std::thread writer;
};

}  // namespace virtual_reader
