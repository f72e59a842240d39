#include "log_relay.h"

#include <string>
#include <utility>

#include "globals.h"

void log_relay(char* text, int length) {
  if (length <= 0) return;
  std::string line = "Log: pcProxAPI says ";
  line.append(text, static_cast<std::size_t>(length));
  globals::out_state().push_line(std::move(line));
}
