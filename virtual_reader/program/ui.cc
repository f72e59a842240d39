#include "ui.h"

#include <signal.h>
#include <unistd.h>
#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

#include <climits>
#include <cstdint>
#include <utility>

namespace virtual_reader {

namespace {

constexpr std::chrono::seconds exit_limit{4};  // it shows pages the end

std::string own_path() {
  char path[PATH_MAX] = "";
#ifdef __APPLE__
  std::uint32_t size = sizeof path;
  return _NSGetExecutablePath(path, &size) == 0 ? path : "";
#else
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path - 1);
  return {path, size < 0 ? 0 : static_cast<std::size_t>(size)};
#endif
}

std::string server_path() {
  const std::string own = own_path();
  return own.substr(0, own.rfind('/') + 1) + "ui/serve";
}

}  // namespace

control_page::control_page(const std::string& socket_path,
                           std::function<void(const std::string&)> on_failure)
    : server({"python3", server_path()},
             {{{"VIRTUAL_READER_SOCKET", socket_path}, {"VIRTUAL_READER", own_path()}},
              false,
              {},
              true}),
      waiter(std::async(std::launch::async, [this, on_failure = std::move(on_failure)] {
        const exit_status status = server.wait();
        if (!status.is_success()) on_failure("the page's server exited with " + status.text());
      })) {
  server.close_output();  // a browser's lines there do not belong to this program's output
}

control_page::~control_page() {
  for (const int number : {SIGTERM, SIGKILL}) {
    if (waiter.wait_for(exit_limit) != std::future_status::ready) kill(-server.pid(), number);
  }
  waiter.wait();
  kill(-server.pid(), SIGTERM);  // a browser's opener that is left
}

}  // namespace virtual_reader
