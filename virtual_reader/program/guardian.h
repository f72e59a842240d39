// What is left to clean up when this process is killed.
#pragma once

#include <string>

#include "child_process.h"

namespace virtual_reader {

// A new folder for this user alone, with a path short enough for a socket in it.
class private_folder {
 public:
  private_folder();   // throws std::system_error
  ~private_folder();  // removes it, and a socket in it
  private_folder(const private_folder&) = delete;
  private_folder& operator=(const private_folder&) = delete;

  std::string socket_path() const { return path + "/reader.sock"; }

  const std::string path;
};

// A small shell script that outlives this process if that is killed, and then ends the command
// under test and removes the private folder. It sees that when its standard input ends.
class guardian {
 public:
  guardian();  // throws std::system_error
  ~guardian();
  guardian(const guardian&) = delete;
  guardian& operator=(const guardian&) = delete;

  // The process group to be ended with this process.
  void watch(pid_t group) const noexcept;

  const private_folder folder;

 private:
  child_process script;
};

}  // namespace virtual_reader
