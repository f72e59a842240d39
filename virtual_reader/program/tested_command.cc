#include "tested_command.h"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>
#include <utility>

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds step_limit{2000};        // of each step of its end
constexpr std::size_t longest_piece = 1 << 20;  // that is handed over whole
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
                               line_function line, exit_function exit)
    : mark(new_mark()),
      process(
          command,
          {{{"VIRTUAL_READER_SOCKET", absolute(socket_path)}, {mark_name, mark}}, false, {}, true}),
      group(process.pid()),
      on_line(std::move(line)),
      on_exit(std::move(exit)),
      waiter([this] { wait_for_exit(); }),
      output([this] { pass_output(); }) {
  watching.watch(group);
}

tested_command::~tested_command() { end(); }

bool tested_command::send(const std::string& bytes) {
  const std::lock_guard<std::mutex> lock(sending);
  return !input_ends.is_cancelled() &&
         input_ends.write_all(process.input_descriptor(), bytes, in(std::chrono::seconds(5)));
}

void tested_command::close_input() {
  input_ends.cancel();  // ends what is being sent
  const std::lock_guard<std::mutex> lock(sending);
  process.close_input();
}

std::optional<exit_status> tested_command::status() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return known_status;
}

bool tested_command::is_agent() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return !reader_name.empty();
}

std::string tested_command::addressed(const std::string& line) const {
  const std::lock_guard<std::mutex> lock(mutex);
  return line.rfind("Global:", 0) == 0 || reader_name.empty() ? line : reader_name + ":" + line;
}

void tested_command::handle_line(const std::string& line) {
  const std::string announcement = "Reader: ";
  if (line.rfind(announcement, 0) == 0) {
    const std::lock_guard<std::mutex> lock(mutex);
    reader_name = line.substr(announcement.size());
  }
  on_line(line);
}

void tested_command::pass_output() {
  std::string pending;
  char block[65536];
  while (output_ends.wait_for(process.output_descriptor(), cancellation::direction::input)) {
    const std::size_t size = process.receive(block, sizeof block);
    if (size == 0) break;
    pending.append(block, size);
    std::size_t start = 0;
    for (std::size_t end; (end = pending.find('\n', start)) != pending.npos; start = end + 1) {
      handle_line(pending.substr(start, end - start));
    }
    pending.erase(0, start);
    if (pending.size() > longest_piece) handle_line(std::exchange(pending, ""));
    output_ends.write_all(STDOUT_FILENO, {block, size});
  }
  if (!pending.empty()) handle_line(pending);
  const std::lock_guard<std::mutex> lock(mutex);
  has_output = false;
  changed.notify_all();
}

void tested_command::wait_for_exit() {
  const exit_status found = process.wait();
  {
    const std::lock_guard<std::mutex> lock(mutex);
    known_status = found;
    changed.notify_all();
  }
  on_exit(found);
}

bool tested_command::wait_until_ended(milliseconds limit) {
  const moment until = in(limit);
  std::unique_lock<std::mutex> lock(mutex);
  if (!changed.wait_until(lock, until, [this] { return known_status.has_value(); })) return false;
  lock.unlock();
  while (is_anything_left(group, mark)) {
    if (std::chrono::steady_clock::now() >= until) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

tested_command::ending tested_command::end() {
  if (!waiter.joinable()) return {};
  close_input();
  const bool has_exited_by_itself = wait_until_ended(step_limit);
  bool is_over = has_exited_by_itself;
  const std::optional<exit_status> own_status = status();
  for (const int number : {SIGTERM, SIGKILL}) {
    if (is_over) break;
    signal_all(number, group, mark);
    is_over = wait_until_ended(step_limit) && number != SIGKILL;
  }
  waiter.join();
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, step_limit, [this] { return !has_output; });
  }
  output_ends.cancel();
  output.join();
  const exit_status last = *status();
  if (own_status && !own_status->is_success()) return {false, "exited with " + own_status->text()};
  if (!is_over) return {false, "did not exit; killed"};
  if (has_exited_by_itself) return {};
  if (own_status) return {true, "left child processes running; ended by SIGTERM"};
  if (last.is_success() || (last.is_signal && last.number == SIGTERM) ||
      last.shell_status() == 128 + SIGTERM) {
    return {true, "ignored end of input; ended by SIGTERM"};
  }
  return {false, "exited with " + last.text() + " on SIGTERM"};
}

}  // namespace virtual_reader
