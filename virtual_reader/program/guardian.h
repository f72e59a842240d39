// A small process that outlives this one if that is killed, and then ends the host and removes the
// private folder. It knows that it is needed when a pipe ends that only this process holds.
#pragma once

#include <sys/types.h>

#include <string>

namespace virtual_reader {

class guardian {
 public:
  // To be made while this process has one thread. The folder and the socket in it are removed at
  // the end in any case. Throws std::runtime_error with one line.
  explicit guardian(const std::string& private_folder);
  // Removes the folder, and lets the process go.
  ~guardian();
  guardian(const guardian&) = delete;
  guardian& operator=(const guardian&) = delete;

  // The process group to be ended with this process.
  void watch(pid_t group) const;
  std::string socket_path() const { return folder + "/reader.sock"; }

 private:
  const std::string folder;
  int pipe_end = -1;
  pid_t child = -1;
};

// A new folder for this user alone, with a path short enough for a socket in it. Throws
// std::runtime_error with one line.
std::string make_private_folder();

// Whether any process of the group is left.
bool is_there(pid_t group);

}  // namespace virtual_reader
