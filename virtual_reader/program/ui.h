// The page that shows the reader in a browser: a program beside this one.
#pragma once

#include <string>

namespace virtual_reader {

// Starts that program for the reader that listens on the socket. It says where its page is on
// standard error, and ends by itself when the reader does. Throws std::runtime_error with one line.
void start_ui(const std::string& socket_path);

}  // namespace virtual_reader
