// The agent with other scan intervals, for tests that would take too long: SEARCH_MS and POLL_MS in
// the environment, in milliseconds (0 scans whenever idle).
#include <cstdlib>

#include "agent.h"
#include "globals.h"

namespace {

void set_from_environment(const char* name, std::chrono::nanoseconds* interval) {
  if (const char* const text = std::getenv(name)) {
    *interval = std::chrono::milliseconds(std::atol(text));
  }
}

}  // namespace

int main() {
  set_from_environment("SEARCH_MS", &globals::card_state().reader_scan_interval);
  set_from_environment("POLL_MS", &globals::card_state().card_scan_interval);
  return run_agent();
}
