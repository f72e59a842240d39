// Serves a control client on a device's socket.
#pragma once

#include <functional>

#include "device.h"
#include "session.h"

namespace virtual_reader {

// Executes the verbs that it sends, one a line, up to the first that fails, and sends the answers
// and the outcome. The callbacks need no answer and no is_interrupted.
void serve_control(int socket, const std::function<bool()>& is_over, device& reader,
                   expectations& expected, session_callbacks callbacks);

}  // namespace virtual_reader
