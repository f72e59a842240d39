// What the virtual reader reads from its socket: any bytes, after the right greeting of an agent,
// or of one who tells it verbs, or without one. It must end the connection, and go on serving
// others.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "control.h"
#include "fuzzing.h"
#include "server.h"

namespace {

using namespace virtual_reader;

const std::string& socket_path() {
  static const scratch_folder folder;
  static const std::string path = folder.path + "/socket";
  return path;
}

bool is_closed_by_peer(int socket) {
  char bytes[4096];
  for (;;) {
    const ssize_t count = recv(socket, bytes, sizeof bytes, 0);
    if (count == 0) return true;
    if (count < 0 && errno == ECONNRESET) return true;
    if (count < 0 && !wait_for(socket, POLLIN, in(message_limit))) return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static device reader;
  static expectations expected(reader);
  static server listening(reader, socket_path(), [](int socket, const auto& is_over) {
    serve_control(socket, is_over, reader, expected, {});
  });
  if (size == 0) return 0;

  const descriptor link(connect_to(socket_path()));
  require(link.number >= 0, "it accepts a connection");
  if (data[0] % 4 != 0) {
    const auto peer =
        exchange_greetings(link.number, data[0] % 4 == 3 ? control_greeting : agent_greeting);
    require(peer && peer->version == protocol_version, "it returns a greeting");
  }
  send_bytes(link.number, data + 1, size - 1, in(message_limit));  // it may hang up on the way
  shutdown(link.number, SHUT_WR);
  require(is_closed_by_peer(link.number), "it ends a connection that has ended");
  return 0;
}
