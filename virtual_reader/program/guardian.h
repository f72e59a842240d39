// What is left to clean up, also when this process is killed.
#pragma once

#include <string>

#include "child_process.h"

namespace virtual_reader {

// A small shell script that outlives this process if that is killed, and then ends the command
// under test. It sees that when its standard input ends. It also removes the folder.
class guardian {
 public:
  explicit guardian(bool wants_folder);  // throws std::system_error
  ~guardian();                           // lets it end, without harm to the command
  guardian(const guardian&) = delete;
  guardian& operator=(const guardian&) = delete;

  // The process group to be ended with this process.
  void watch(pid_t group) const noexcept { send(std::to_string(group)); }

  // For this user alone, with a path short enough for the socket `reader.sock` in it; may be empty.
  const std::string folder;

 private:
  void send(const std::string& group) const noexcept;
  child_process script;
};

}  // namespace virtual_reader
