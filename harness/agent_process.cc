#include "agent_process.h"

#include <poll.h>

#include <stdexcept>

std::string agent_process::next_line(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const std::size_t line_feed = pending.find('\n');
    if (line_feed != std::string::npos) {
      std::string line = pending.substr(0, line_feed);
      pending.erase(0, line_feed + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{output_descriptor(), POLLIN, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) == 0) {
      return "(timeout)";
    }
    char block[65536];
    const std::size_t count = receive(block, sizeof block);
    if (count == 0) return "(end)";
    pending.append(block, count);
  }
}

std::string agent_process::line_beginning(const std::string& start) {
  for (;;) {
    std::string line = next_line();
    if (line.rfind(start, 0) == 0 || line == "(end)" || line == "(timeout)") return line;
  }
}

std::string agent_process::await_reader() {
  const std::string head = "Reader: ";
  const std::string line = line_beginning(head);
  if (line.rfind(head, 0) != 0) throw std::runtime_error("no reader but " + line);
  return line.substr(head.size());
}

std::string agent_process::ask(const std::string& line) {
  send_line(line);
  for (;;) {
    std::string answer = next_line();
    if (answer[0] == 'O' || answer[0] == 'E' || answer[0] == '(') return answer;
  }
}

std::vector<std::string> agent_process::remaining_lines() {
  std::vector<std::string> lines;
  for (;;) {
    std::string line = next_line();
    if (line == "(end)") return lines;
    lines.push_back(std::move(line));
    if (lines.back() == "(timeout)") return lines;
  }
}

int agent_process::finish() {
  close_input();
  remaining_lines();
  return wait();
}
