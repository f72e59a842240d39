// What the fuzzers share.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "scratch_folder.h"

// Stops the fuzzer, which then keeps the input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}
