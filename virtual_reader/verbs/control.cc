#include "control.h"

#include <sstream>
#include <utility>

#include "wire.h"

namespace virtual_reader {

void serve_control(int socket, const std::function<bool()>& is_over, device& reader,
                   expectations& expected, session_callbacks callbacks) {
  const auto verbs = receive_message(socket, answer_size_limit, in(message_limit));
  if (!verbs) return;
  bool listens = true;
  const auto send = [&](const std::string& text) {
    return listens = send_message(socket, text, in(message_limit));
  };
  callbacks.may_follow = true;
  callbacks.is_interrupted = is_over;
  callbacks.answer = [&](const std::string& line) {
    if (!send("= " + line)) throw cancelled();
  };
  const session session(reader, expected, std::move(callbacks));
  std::istringstream lines(*verbs);
  std::string outcome = "passed";
  try {
    for (std::string line; std::getline(lines, line);) session.execute(line);
  } catch (const syntax_error& error) {
    outcome = std::string("failed ") + error.what();
  } catch (const failed_expectation& failure) {
    outcome = "failed " + failure.text();
  } catch (const cancelled&) {
    outcome = "failed interrupted";
  }
  if (listens) send(outcome);
}

}  // namespace virtual_reader
