#include "execute.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "cancellation.h"
#include "wire.h"

namespace virtual_reader {

int execute(const std::string& socket_path, const std::string& verbs,
            std::chrono::milliseconds limit) {
  const moment until = limit.count() > 0 ? in(limit) : never;
  signal(SIGPIPE, SIG_IGN);
  const descriptor link(connect_to(socket_path));
  const std::string nothing = "no virtual reader listens on " + socket_path;
  if (link.number < 0) {
    const bool is_nobody_there = errno == ENOENT || errno == ECONNREFUSED;
    throw std::runtime_error(
        nothing + (is_nobody_there ? "" : ": " + std::generic_category().message(errno)));
  }
  std::string why;
  const auto peer = exchange_greetings(link.number, control_greeting, &why);
  if (!peer) throw std::runtime_error(nothing + ": " + why);
  if (peer->version != protocol_version) {
    throw std::runtime_error("version mismatch with the virtual reader on " + socket_path);
  }
  if (!send_message(link.number, verbs, in(message_limit))) {
    throw std::runtime_error("connection lost, or the verbs are too long");
  }
  const cancellation never_cancelled;
  for (;;) {
    const bool is_late = std::chrono::steady_clock::now() >= until;
    if (is_late || !wait_for(link.number, POLLIN, until)) {
      never_cancelled.write_all(STDERR_FILENO, "virtual-reader: timed out\n");
      return 4;
    }
    const auto reply = receive_message(link.number, answer_size_limit, in(message_limit));
    if (!reply) break;
    const bool is_line = reply->rfind("= ", 0) == 0;
    std::string text = reply->substr(std::min(reply->find(' ') + 1, reply->size()));
    if (*reply == "passed") return 0;
    if (!text.empty() && text.back() != '\n') text += '\n';
    if (!never_cancelled.write_all(is_line ? STDOUT_FILENO : STDERR_FILENO, text) && is_line) {
      throw std::runtime_error("cannot write to standard output: " +
                               std::generic_category().message(errno));
    }
    if (!is_line) return 1;
  }
  throw std::runtime_error("connection lost before the verbs finished");
}

}  // namespace virtual_reader
