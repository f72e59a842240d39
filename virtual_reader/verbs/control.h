// Serves one who has come to a device's socket to tell it verbs.
#pragma once

#include <functional>

#include "device.h"
#include "session.h"

namespace virtual_reader {

// Carries out the verbs that come, one a line, up to the first that goes wrong, and sends what they
// answer and the outcome. `around` is what a session needs but for its answers and cancelled.
// Fits device::control_function.
void serve_control(int socket, const std::function<bool()>& is_over, device& reader,
                   expectations& expected, session_callbacks callbacks);

}  // namespace virtual_reader
