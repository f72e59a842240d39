// What the fuzzers share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

// Stops the fuzzer, which then keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

// A folder for the length of the run.
struct scratch_folder {
  scratch_folder() : path(make()) {}
  ~scratch_folder() {
    if (std::system(("rm -rf " + path).c_str()) != 0) std::perror(path.c_str());
  }
  scratch_folder(const scratch_folder&) = delete;
  scratch_folder& operator=(const scratch_folder&) = delete;
  const std::string path;

 private:
  static std::string make() {
    char name[] = "/tmp/card-reader-fuzz-XXXXXX";
    require(mkdtemp(name) != nullptr, "a folder can be made");
    return name;
  }
};
