#include "control.h"

#include <sstream>
#include <utility>

#include "wire.h"

namespace virtual_reader {

void serve_control(int socket, const std::function<bool()>& is_over, device& reader,
                   expectations& expected, session_callbacks callbacks) {
  const auto given = receive_message(socket, telling_size_limit, in(message_limit));
  if (!given || given->texts.size() != 1) return;
  bool listens = true;
  const auto send = [&](const message& told) {
    return listens = send_message(socket, told, in(message_limit));
  };
  callbacks.may_follow = true;
  callbacks.is_interrupted = is_over;
  callbacks.answer = [&](const std::string& line) {
    if (!send({{line_message}, {line}})) throw cancelled();
  };
  session told(reader, expected, std::move(callbacks));
  std::istringstream lines(given->texts[0]);
  message outcome{{outcome_message, 0}, {}};
  try {
    for (std::string line; std::getline(lines, line);) told.execute(line);
  } catch (const syntax_error& error) {
    outcome = {{outcome_message, 1}, {error.what()}};
  } catch (const failed_expectation& failure) {
    outcome = {{outcome_message, 1}, {failure.text()}};
  } catch (const cancelled&) {
    outcome = {{outcome_message, 1}, {"interrupted"}};
  }
  if (listens) send(outcome);
}

}  // namespace virtual_reader
