// A folder in /tmp for as long as this object lives.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

class scratch_folder {
 public:
  scratch_folder() : path("/tmp/card-reader-XXXXXX") {
    if (!mkdtemp(path.data())) throw std::system_error(errno, std::generic_category(), path);
  }
  ~scratch_folder() {
    if (std::system(("rm -rf " + path).c_str()) != 0) std::perror(path.c_str());
  }
  scratch_folder(const scratch_folder&) = delete;
  scratch_folder& operator=(const scratch_folder&) = delete;

  std::string path;
};
