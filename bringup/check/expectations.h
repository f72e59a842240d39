// What the agent expects of a reader library, a row each.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace bringup {

struct expectation {
  const char* name;
  bool needs_reader;  // connected
  // Tries it. Returns what is worth knowing besides, or throws does_not_hold or could_not_be_tried.
  std::function<std::string(session&)> attempt;
};
extern const std::vector<expectation> expectations;

// Loads the configuration into the library; the five records, in the order of the agent's header.
std::vector<record> read_configuration(session&);
// Stores it in the reader and looks that it is there. Throws does_not_hold.
void put_back(session&, const std::vector<record>&);

// The file that keeps a configuration: a line a record, its Set function and its fields.
// Both throw std::runtime_error; the first overwrites nothing.
void save_configuration(const std::string& path, const std::vector<record>&);
std::vector<record> saved_configuration(const std::string& path);

}  // namespace bringup
