#include "tested_command.h"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>

#include "expectations.h"
#include "tokens.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds step_limit{2000};  // of each step of its end
constexpr milliseconds send_limit{5000};
const char mark_name[] = "VIRTUAL_READER_RUN";

// Wherever the command's own folder is, unless that would be too long for a socket.
std::string absolute(const std::string& path) {
  char folder[PATH_MAX];
  if (path[0] == '/' || !getcwd(folder, sizeof folder)) return path;
  const std::string whole = std::string(folder) + "/" + path;
  return address_of(whole) ? whole : path;
}

std::string new_mark() {
  static std::atomic<int> runs{0};
#ifdef __linux__
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // orphans come here, to be waited for
#endif
  return std::to_string(getpid()) + "-" + std::to_string(++runs);
}

// The processes that were started with this in their environment; none where /proc does not tell.
std::vector<pid_t> find_processes(const std::string& mark) {
  const std::string wanted = std::string(mark_name) + "=" + mark + '\0';
  std::vector<pid_t> found;
  DIR* const folder = opendir("/proc");
  while (const dirent* const each = folder ? readdir(folder) : nullptr) {
    const std::string name = each->d_name;
    if (name.find_first_not_of("0123456789") != name.npos) continue;
    std::ifstream file("/proc/" + name + "/environ", std::ios::binary);
    const std::string environment(std::istreambuf_iterator<char>(file), {});
    if (environment.find(wanted) != environment.npos) found.push_back(std::stoi(name));
  }
  if (folder) closedir(folder);
  return found;
}

// Whether any process of the group or with the mark is left. Orphans are waited for.
bool is_anything_left(pid_t group, const std::string& mark) {
  while (waitpid(-group, nullptr, WNOHANG) > 0) {
  }
  return kill(-group, 0) == 0 || errno == EPERM || !find_processes(mark).empty();
}

void signal_all(int number, pid_t group, const std::string& mark) {
  kill(-group, number);
  for (const pid_t process : find_processes(mark)) kill(process, number);
}

}  // namespace

tested_command::tested_command(const std::vector<std::string>& command,
                               const std::string& socket_path, const guardian& watching,
                               event_log& event_log, const std::function<void()>& on_exit)
    : mark(new_mark()),
      process(
          command,
          {{{"VIRTUAL_READER_SOCKET", absolute(socket_path)}, {mark_name, mark}}, false, {}, true}),
      group(process.pid()),
      log(event_log),
      exited(exit.get_future()) {
  watching.watch(group);
  waiter = std::async(std::launch::async, [this, on_exit] {
    const exit_status status = process.wait();
    exit.set_value(status);
    log.add(0, "command exited with " + status.text());
    on_exit();
  });
  output = std::async(std::launch::async, [this] {
    output_ends.read_lines(
        process.output_descriptor(), longest_line, [this](auto& line) { handle_line(line); },
        [this](auto& bytes) { output_ends.write_all(STDOUT_FILENO, bytes); });
  });
}

tested_command::~tested_command() { end(); }

void tested_command::handle_line(const std::string& line) {
  const std::string announcement = "Reader: ";
  if (line.rfind(announcement, 0) == 0) {
    const std::lock_guard<std::mutex> lock(mutex);
    reader_name = line.substr(announcement.size());
  }
  log.add(0, "received " + plain_line(line));
}

void tested_command::send(const std::string& line) {
  std::string addressed = line;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const bool is_whole = line.rfind("Global:", 0) == 0 || reader_name.empty();
    if (!is_whole) addressed = reader_name + ":" + line;
  }
  const std::lock_guard<std::mutex> lock(sending);
  log.add(0, "sent " + without_controls(addressed));
  if (input_ends.is_cancelled() ||
      !input_ends.write_all(process.input_descriptor(), addressed + "\n", in(send_limit))) {
    throw failed_expectation("command does not read its input", {});
  }
}

void tested_command::close_input() {
  input_ends.cancel();  // ends what is being sent
  const std::lock_guard<std::mutex> lock(sending);
  process.close_input();
}

bool tested_command::is_running() const {
  return exited.wait_for(milliseconds(0)) != std::future_status::ready;
}

bool tested_command::is_agent() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return !reader_name.empty();
}

bool tested_command::wait_until_ended(milliseconds limit) const {
  const moment until = in(limit);
  if (exited.wait_until(until) != std::future_status::ready) return false;
  while (is_anything_left(group, mark)) {
    if (std::chrono::steady_clock::now() >= until) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

tested_command::ending tested_command::end() {
  if (!waiter.valid()) return {};
  close_input();
  const bool has_exited_by_itself = wait_until_ended(step_limit);
  const bool had_exited = !is_running();
  bool is_over = has_exited_by_itself;
  for (const int number : {SIGTERM, SIGKILL}) {
    if (is_over) break;
    signal_all(number, group, mark);
    is_over = wait_until_ended(step_limit) && number != SIGKILL;
  }
  waiter.get();
  output.wait_for(step_limit);
  output_ends.cancel();
  output.get();
  const exit_status last = wait();
  const bool is_terminated = last.shell_status() == 128 + SIGTERM && !had_exited;
  if (had_exited && !last.is_success()) return {false, "exited with " + last.text()};
  if (!is_over) return {false, "did not exit; killed"};
  if (!last.is_success() && !is_terminated) {
    return {false, "exited with " + last.text() + " on SIGTERM"};
  }
  if (has_exited_by_itself || !had_exited) return {};
  return {true, "left child processes running; ended by SIGTERM"};
}

}  // namespace virtual_reader
