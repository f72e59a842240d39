// The page that shows the reader in a browser: a server beside this program.
#pragma once

#include <functional>
#include <future>
#include <string>

#include "child_process.h"

namespace virtual_reader {

// The server runs for as long as this exists. It prints the page's address on standard error, and
// exits when the reader does.
class control_page {
 public:
  // For the reader that listens on the socket. The function is called, on another thread, if the
  // server exits with an error. Throws std::system_error, for instance without Python.
  control_page(const std::string& socket_path, std::function<void(const std::string&)> on_failure);
  // Waits until it has exited, and ends it if that takes too long.
  ~control_page();
  control_page(const control_page&) = delete;
  control_page& operator=(const control_page&) = delete;

 private:
  child_process server;
  std::future<void> waiter;
};

}  // namespace virtual_reader
