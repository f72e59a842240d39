// Any reader library, loaded at run time instead of being linked.
#pragma once

#include <string>
#include <vector>

#include "pc_prox_api.h"

namespace bringup {

// Its functions under their own names; null until loaded, and those that the library lacks.
struct reader_library {
#define READER_FUNCTION(name) decltype(&::name) name = nullptr;
#include "reader_functions.inc"
#undef READER_FUNCTION

  // The names of the functions that are missing.
  std::vector<std::string> missing;

  // Loads the file, which stays loaded up to the end of the process. Returns nothing, or why it
  // could not be loaded.
  std::string load(const std::string& path);
};

}  // namespace bringup
