// The check's report for machines.
#pragma once

#include <string>
#include <vector>

#include "session.h"

namespace bringup {

struct finding {
  std::string name, outcome, detail;  // outcome: holds, does not hold, could not be tried
};

// In milliseconds, of one call or more.
struct timing {
  double least, median, most;
};
timing timing_of(std::vector<std::chrono::nanoseconds> times);

// The SHA-256 of the file in hexadecimal, made by the system's own tool; empty if it has none.
std::string digest_of(const std::string& path);

// One JSON object with the library's name and digest, the system, the findings, the time that each
// call took, and what the library said and printed. Throws std::system_error.
void write_report(const std::string& path, const session&, const std::vector<finding>&);

}  // namespace bringup
