#include "line_host.h"

#include <algorithm>

#include "session.h"

namespace virtual_reader {

namespace {

constexpr std::chrono::seconds patience{5};  // with an answer

bool begins_with(const std::string& text, const std::string& start) {
  return text.rfind(start, 0) == 0;
}

}  // namespace

// Sends the line, if there is one, and the ping behind it.
void line_host::push(pending added, const std::string& line) {
  std::string bytes = line.empty() ? "" : line + "\n";
  const std::lock_guard<std::mutex> in_order(sending);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string mark = "virtual-reader " + std::to_string(++pings);
    bytes += "Global:Ping " + mark + "\n";
    added.own_answer = "Ok:  " + mark;
    unsettled.push_back(std::move(added));
  }
  if (!put(bytes)) throw failed_expectation("the host does not take its input", {});
}

// False if something was still unsettled when patience ended. With a call that hangs until it is
// released there is nothing to wait for.
bool line_host::wait_until_settled(const std::function<bool()>& is_interrupted, bool or_hanging) {
  const auto until = std::chrono::steady_clock::now() + patience;
  const auto hangs = [](const virtual_reader::reader& r) {
    return std::any_of(r.waiting.begin(), r.waiting.end(), [](const auto& w) { return w.hangs; });
  };
  std::unique_lock<std::mutex> lock(mutex);
  while (!unsettled.empty()) {
    if (is_interrupted && is_interrupted()) throw cancelled();
    if (or_hanging && reader.read(hangs)) return true;
    if (std::chrono::steady_clock::now() >= until) return false;
    changed.wait_for(lock, std::chrono::milliseconds(10));
  }
  return true;
}

void line_host::send(const std::string& place, const std::string& command,
                     const std::string& answer, const std::function<bool()>& is_interrupted) {
  // Once this is answered, all that the agent has announced before has been read.
  push({place, "", "", ""}, "");
  if (!wait_until_settled(is_interrupted, true)) {
    throw failed_expectation(
        "expected an answer to Global:Ping; `host` lines are for the agent itself", {});
  }
  std::string line = command;
  if (!begins_with(command, "Global:")) {
    const std::lock_guard<std::mutex> lock(mutex);
    line = name + ":" + command;
  }
  reader.log.add(0, "sent " + without_controls(line));
  push({place, command, answer, ""}, line);
}

bool line_host::take(const std::string& line) {
  std::unique_lock<std::mutex> lock(mutex);
  if (begins_with(line, "Reader: ")) name = line.substr(8);
  if (unsettled.empty() || !(begins_with(line, "Ok:") || begins_with(line, "Error:"))) return true;
  if (line != unsettled.front().own_answer) {
    unsettled.front().came = line;
    return true;
  }
  const pending settled = unsettled.front();
  unsettled.pop_front();
  changed.notify_all();
  lock.unlock();
  if (!settled.command.empty() && !settled.answer.empty() && settled.came != settled.answer) {
    failed(settled.place, "expected the answer '" + settled.answer + "' to '" + settled.command +
                              "', but it was '" + settled.came + "'");
  }
  return false;
}

void line_host::wait_for_answers(const std::function<bool()>& is_interrupted) {
  if (wait_until_settled(is_interrupted, false)) return;
  const std::lock_guard<std::mutex> lock(mutex);
  for (const pending& one : unsettled) {
    if (!one.command.empty()) failed(one.place, "expected an answer to '" + one.command + "'");
  }
}

}  // namespace virtual_reader
