// A private local socket, and a thread for each agent connected to it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "wire.h"

namespace virtual_reader {

class server {
 public:
  // Serves one agent, on a thread of its own. Must return soon once the socket has been shut down.
  using serve_function = std::function<void(int socket)>;

  // Listens when it returns. Throws std::runtime_error with one line, for instance when another
  // virtual reader listens there; a socket that one has left behind is taken over.
  server(const std::string& path, serve_function serve);
  // Shuts all links down, waits for their threads, and removes the socket if it is still its own.
  ~server();
  server(const server&) = delete;
  server& operator=(const server&) = delete;

 private:
  struct link {
    explicit link(int accepted) : socket(accepted) {}
    descriptor socket;
    std::thread thread;
    bool ended = false;
  };

  void accept_links();
  void end_links(bool all);

  const std::string path;
  const serve_function serve;
  descriptor listener, wake_in, wake_out;  // what can be read from wake_out ends accept_links()
  ino_t inode = 0;                         // of the socket
  std::mutex mutex;                        // guards links
  std::list<link> links;
  std::thread acceptor;
};

}  // namespace virtual_reader
