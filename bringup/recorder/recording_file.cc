#include "recording_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <system_error>

#include "call.h"

namespace bringup {

namespace {

std::string system_and_time() {
  utsname system{};
  uname(&system);
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  char text[32] = "";
  if (gmtime_r(&now, &parts)) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return std::string("# on ") + system.sysname + " " + system.release + " " + system.machine +
         "\n# from " + text + "\n";
}

mode_t mode_of(const std::string& path) {
  struct stat found {};
  stat(path.c_str(), &found);
  return found.st_mode;
}

// An agent that is started again finds its recording of before: NAME, NAME.2, NAME.3, ...
int create(const std::string& path) {
  constexpr int most = 10'000;
  constexpr int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  for (int number = 1; number <= most; ++number) {
    const std::string name = number == 1 ? path : path + "." + std::to_string(number);
    const int made = open(name.c_str(), flags | O_CREAT | O_EXCL, 0666);
    if (made >= 0 || errno != EEXIST) return made;
    const mode_t mode = mode_of(name);
    if (S_ISREG(mode)) continue;
    // What is no file, a terminal say, is taken as it is. But who stops reading a pipe would end
    // the agent.
    if (!S_ISFIFO(mode) && !S_ISSOCK(mode)) return open(name.c_str(), flags);
    errno = ENOTSUP;
    return -1;
  }
  return -1;
}

}  // namespace

recording_file::recording_file(std::string about_the_library)
    : comments(std::move(about_the_library)) {
  const char* const value = std::getenv(recording_variable);
  path = value ? value : "";
  on = !path.empty();
}

bool recording_file::is_on() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return on;
}

// Not before the first entry: by then the agent holds the places of its standard streams.
void recording_file::open_file() {
  const int opened = create(path);
  if (opened < 0) throw std::system_error(errno, std::generic_category(), path);
  file = fcntl(opened, F_DUPFD_CLOEXEC, 3);
  close(opened);
  write_all(std::string(virtual_reader::recording_header) + "\n" + comments + system_and_time());
}

void recording_file::write_all(const std::string& text) {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t count = write(file, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), path);
    if (count > 0) written += static_cast<std::size_t>(count);
  }
}

void recording_file::add(const std::string& text) noexcept {
  const int error_number = errno;
  const std::lock_guard<std::mutex> lock(mutex);
  if (on) try {
      if (file < 0) open_file();
      virtual_reader::event_line entry;
      entry.time = std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::steady_clock::now() - beginning);
      entry.agent = 1;
      entry.text = text;
      write_all(to_text(entry) + "\n");
    } catch (const std::exception& why) {
      on = false;
      const char* const parts[] = {"card reader recording ended: ", why.what(), "\n"};
      for (const char* const part : parts) {
        if (write(STDERR_FILENO, part, std::char_traits<char>::length(part)) < 0) break;
      }
    }
  errno = error_number;
}

}  // namespace bringup
