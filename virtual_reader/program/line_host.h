// Plays the host of an agent: sends it commands, and sees that they are answered as foretold.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "device.h"

namespace virtual_reader {

// An answer is known by a ping with a number of its own that is sent after each command, since a
// library's text can look like one: of what looks like an answer the last before the ping's own is.
class line_host {
 public:
  using send_function = std::function<bool(const std::string& bytes)>;
  // Takes what was wrong with an answer.
  using failure_function = std::function<void(const std::string& place, const std::string& what)>;

  line_host(device& of_the_agent, send_function send, failure_function on_failure)
      : reader(of_the_agent), put(std::move(send)), failed(std::move(on_failure)) {}

  // Sends it to the reader that is attached, or as it is if it begins with "Global:". The answer,
  // any if empty, is looked at when it comes. Throws failed_expectation when the agent does not
  // answer at all, and cancelled.
  void send(const std::string& place, const std::string& command, const std::string& answer,
            const std::function<bool()>& is_interrupted);
  // What the agent says. False if that is of no interest to anybody else.
  bool take(const std::string& line);
  // Waits for the answers that are missing.
  void wait_for_answers(const std::function<bool()>& is_interrupted);

 private:
  struct pending {
    std::string place, command, answer;  // no command: a ping alone
    std::string own_answer;              // of the ping behind it
    std::string came = {};               // what looked like an answer last
  };
  void push(pending added, const std::string& line);
  bool wait_until_settled(const std::function<bool()>& is_interrupted, bool or_hanging);

  device& reader;
  const send_function put;
  const failure_function failed;
  std::mutex sending;  // taken before the other one: what is unsettled is in the order of the pipe
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::deque<pending> unsettled;
  std::string name = "Global";  // of the reader that is attached
  int pings = 0;
};

}  // namespace virtual_reader
