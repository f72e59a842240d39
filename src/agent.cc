#include "agent.h"

#include <system_error>
#include <thread>

#include "globals.h"
#include "input_loop.h"
#include "standard_streams.h"

namespace {

// The C++ libraries word this failure differently; applications look for this text.
template <typename Body>
std::thread start_thread(Body body) {
  try {
    return std::thread(body);
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "thread constructor failed");
  }
}

}  // namespace

int run_agent() {
  arrange_streams();
  output_str_state& out = globals::out_state();
  std::thread input = start_thread(input_loop);
  std::thread writer = start_thread([&out] { out.loop(); });

  globals::card_state().loop();

  out.request_stop();
  input.join();
  writer.join();
  return 0;
}
