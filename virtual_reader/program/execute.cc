#include "execute.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "outcome.h"
#include "printer.h"
#include "wire.h"

namespace virtual_reader {

namespace {

int fail(const std::string& why, int status = wrong_usage) {
  write_all(STDERR_FILENO, "virtual-reader: " + why + "\n");
  return status;
}

}  // namespace

int execute(const std::string& socket_path, const std::string& verbs,
            std::chrono::milliseconds limit) {
  const moment until = limit.count() > 0 ? in(limit) : never;
  signal(SIGPIPE, SIG_IGN);
  const descriptor link(connect_to(socket_path));
  if (link.number < 0) {
    const bool is_nobody_there = errno == ENOENT || errno == ECONNREFUSED;
    return fail("no virtual reader is on " + socket_path +
                (is_nobody_there ? "" : ": " + std::generic_category().message(errno)));
  }
  std::string why;
  const auto peer = exchange_greetings(link.number, control_greeting, &why);
  if (!peer) return fail("no virtual reader is on " + socket_path + ": " + why);
  if (peer->version != protocol_version) {
    return fail("the one on " + socket_path + " is another version of the virtual reader");
  }
  if (!send_message(link.number, {{}, {verbs}}, in(message_limit))) {
    return fail("the virtual reader has gone, or the verbs are too long");
  }
  for (;;) {
    const bool is_late = std::chrono::steady_clock::now() >= until;
    if (is_late || !wait_for(link.number, POLLIN, until)) {
      return fail("timed out", cut_off);
    }
    const auto given = receive_message(link.number, telling_size_limit, in(message_limit));
    if (!given || given->numbers.empty()) break;
    const bool is_line = given->numbers[0] == line_message;
    std::string text;
    for (const std::string& line : given->texts) text += line;
    if (!text.empty() && text.back() != '\n') text += '\n';
    write_all(is_line ? STDOUT_FILENO : STDERR_FILENO, text);
    if (!is_line) return given->numbers.size() == 2 && given->numbers[1] == 0 ? 0 : 1;
  }
  return fail("the virtual reader has gone before it was done");
}

}  // namespace virtual_reader
