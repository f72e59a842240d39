#include "server.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace virtual_reader {

namespace {

bool is_closed(int socket) {
  char next;
  return recv(socket, &next, 1, MSG_PEEK) == 0;
}

}  // namespace

server::server(device& device_to_serve, const std::string& socket_path, control_function control)
    : served(device_to_serve),
      serve_control(std::move(control)),
      door(std::make_unique<listener>(socket_path)),
      acceptor([this] { accept_peers(); }) {}

server::~server() {
  is_ending = true;
  door->interrupt();
  acceptor.join();
  door.reset();
  served.cancel();
  // They may finish what they answer, if the peer takes it: a call that has had its effect has its
  // result.
  for (const peer& each : peers) shutdown(each.socket.number, SHUT_RD);
  served.log.wake();
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(1), [this] {
      return std::all_of(peers.begin(), peers.end(),
                         [](const peer& p) -> bool { return p.has_ended; });
    });
  }
  for (const peer& each : peers) shutdown(each.socket.number, SHUT_RDWR);
  join_peers(true);
}

// Those that have ended, or all.
void server::join_peers(bool all) {
  for (auto each = peers.begin(); each != peers.end();) {
    if (!all && !each->has_ended) {
      ++each;
      continue;
    }
    each->worker.join();
    each = peers.erase(each);
  }
}

// Waits for a new peer, or a second. What waits on behalf of a peer that hangs up is woken.
bool server::watch_peers() {
  std::vector<pollfd> watched = {{door->number(), POLLIN, 0}};
  for (const peer& each : peers) {
    watched.push_back({each.has_hung_up ? -1 : each.socket.number, 0, 0});
  }
  poll(watched.data(), static_cast<nfds_t>(watched.size()), 1000);
  bool has_lost = false;
  auto seen = watched.begin();
  for (peer& each : peers) {
    if ((++seen)->revents == 0) continue;
    has_lost = each.has_hung_up = true;
  }
  if (has_lost) served.wake();
  return watched[0].revents != 0;
}

void server::accept_peers() {
  while (!is_ending) {
    const bool is_called = watch_peers();
    join_peers(false);
    const int socket = is_called ? door->accept() : -1;
    if (socket < 0) continue;
    peer& added = peers.emplace_back(socket);
    try {
      added.worker = std::thread([this, &added] {
        serve(added.socket.number);
        shutdown(added.socket.number, SHUT_RDWR);
        const std::lock_guard<std::mutex> lock(mutex);
        added.has_ended = true;
        changed.notify_all();
      });
    } catch (const std::system_error&) {  // no thread is left
      peers.pop_back();
    }
  }
}

void server::serve(int socket) {
  std::string why;
  const auto greeted = exchange_greetings(socket, agent_greeting, &why);
  const bool is_control = greeted && greeted->role == control_greeting;
  if (greeted && greeted->version != protocol_version) {
    why = "it speaks protocol version " + std::to_string(greeted->version) +
          ", this virtual reader version " + std::to_string(protocol_version);
  }
  if (is_control) {
    const auto is_over = [&] { return is_ending || is_closed(socket); };
    if (why.empty() && serve_control) serve_control(socket, is_over);
  } else if (!is_ending) {
    why.empty() ? serve_agent(socket) : served.refuse(why);
  }
}

void server::serve_agent(int socket) {
  const device::connection to{
      [socket](const std::string& line) { return send_message(socket, line, in(message_limit)); },
      [socket] { return is_closed(socket); }};
  const int agent = served.attach(to);
  std::string why;
  std::optional<std::string> cut;
  while (!cut && wait_for(socket, POLLIN, never)) {
    const auto received = receive_message(socket, call_size_limit, in(message_limit), &why);
    const auto asked = received ? parse_call(*received) : std::nullopt;
    if (!received) {
      cut = why;
    } else if (!asked || asked->has_ended || !is_call(asked->name)) {
      cut = "it sent an invalid call";
    } else {
      cut = served.answer(to, agent, *asked);
    }
  }
  served.detach(agent, is_closed(socket) ? "" : cut.value_or(""));
}

}  // namespace virtual_reader
