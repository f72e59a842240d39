// The virtual reader at the far end of the library's socket: agents come, call and go.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "entrance.h"
#include "reader.h"
#include "replay.h"

namespace virtual_reader {

// Every public member may be called from any thread, and none waits for a call that is delayed.
class device {
 public:
  // Serves one who has come to tell the reader something rather than to use it, on a thread of its
  // own; must return soon once `is_over` says so.
  using teller_function = std::function<void(int socket, const std::function<bool()>& is_over)>;

  // Listening once constructed. Throws std::runtime_error with one clear line.
  explicit device(const std::string& socket_path, bool plugged_in = true,
                  teller_function serve_teller = nullptr);
  ~device() { end(); }
  // Pulls the reader out for good and removes the socket. To be called by one thread.
  void end();

  // From now on agents are answered as a recorded library did.
  void play_back(std::vector<recorded_call> recorded) {
    const std::lock_guard<std::mutex> lock(mutex);
    recording.emplace(std::move(recorded));
  }

  // What has happened; to be read without any lock.
  record happened;

  // What `look` and `make_change` do with the reader is done at once, as everyone else sees it.
  template <typename F>
  auto look(const F& look) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return look(static_cast<const reader&>(now));
  }
  template <typename F>
  void change(const F& make_change) {
    const std::lock_guard<std::mutex> lock(mutex);
    make_change(now);
    changed.notify_all();
  }

 private:
  void accept_peers();
  void serve(int socket);
  void serve_agent(int socket, int agent);
  std::string converse(int socket, int agent);
  std::optional<std::string> answer(int socket, call* asked);
  bool wait_out(int socket, std::chrono::milliseconds time, std::uint64_t releases);

  const teller_function serve_teller;
  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  reader now{happened};
  std::optional<replay> recording;
  int last_agent = 0;
  std::set<int> links;  // the sockets of all peers, each with a thread of its own
  bool ending = false;

  std::unique_ptr<entrance> door;
  std::thread acceptor;
};

}  // namespace virtual_reader
