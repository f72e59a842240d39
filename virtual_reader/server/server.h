// Serves a device on a socket: agents attach, call and detach, and control clients run verbs.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "device.h"
#include "listener.h"

namespace virtual_reader {

class server {
 public:
  // Serves a control client on a thread of its own; must return soon once `is_over` says so.
  using control_function = std::function<void(int socket, const std::function<bool()>& is_over)>;

  // Listens once constructed. Throws std::runtime_error with one line.
  server(device& served, const std::string& socket_path, control_function serve_control = nullptr);
  // Removes the socket, gives peers a second to take what is on its way, and joins all threads.
  ~server();
  server(const server&) = delete;
  server& operator=(const server&) = delete;

 private:
  struct peer {
    explicit peer(int accepted) : socket(accepted) {}
    const descriptor socket;
    std::atomic<bool> has_ended{false};
    bool has_hung_up = false;  // the acceptor's
    std::thread worker;
  };
  void accept_peers();
  bool watch_peers();
  void serve(int socket);
  void serve_agent(int socket);
  void join_peers(bool all);

  device& served;
  const control_function serve_control;
  std::atomic<bool> is_ending{false};
  std::unique_ptr<listener> door;
  std::list<peer> peers;  // the acceptor's, until it has been joined
  std::mutex mutex;
  std::condition_variable changed;  // that a peer has ended
  std::thread acceptor;
};

}  // namespace virtual_reader
