// A private local socket and a thread for each agent connected to it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace virtual_reader {

class server {
 public:
  // Serves one agent; called on a thread of its own, which ends with it. Must return soon once the
  // socket has been shut down.
  using serve_function = std::function<void(int socket)>;

  // Listens when it returns. Throws std::runtime_error with one line, for instance when another
  // virtual reader listens there; what one has left behind is taken over.
  server(std::string path, serve_function serve);
  // Shuts all sockets down, waits for the threads and removes the socket, if it is still its own.
  ~server();
  server(const server&) = delete;
  server& operator=(const server&) = delete;

 private:
  struct link {
    int socket;
    std::thread thread;
    bool ended = false;
  };

  void listen_on_path();
  void accept_links();
  void end_links(bool all);

  const std::string path;
  const serve_function serve;
  int listener = -1;
  int wake[2] = {-1, -1};  // a byte in it ends accept_links()
  dev_t device = 0;        // tells whether the socket at `path` is still this one
  ino_t inode = 0;
  std::mutex mutex;  // guards links
  std::list<link> links;
  std::thread acceptor;
};

}  // namespace virtual_reader
