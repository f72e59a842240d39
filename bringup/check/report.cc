#include "report.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <system_error>

#include "quoted.h"

extern char** environ;

namespace bringup {

namespace {

// What a program of the system prints when it reads that file; empty if there is no such program.
std::string output_of(std::vector<std::string> command, const std::string& input) {
  int ends[2];
  if (pipe(ends) != 0) return {};
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> arguments;
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  pid_t child = -1;
  const int error =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string all;
  char bytes[4096];
  for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;) {
    all.append(bytes, static_cast<std::size_t>(count));
  }
  close(ends[0]);
  if (error == 0) waitpid(child, nullptr, 0);
  return all.substr(0, all.find('\n'));
}

std::string json(const std::string& text) {
  std::string all = "\"";
  for (const char c : text) {
    char code[8];
    const bool is_plain = static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\';
    std::snprintf(code, sizeof code, is_plain ? "%c" : "\\u%04x", c);
    all += code;
  }
  return all + '"';
}

std::string system_name() {
  utsname told{};
  uname(&told);
  std::string text = std::string(told.sysname) + " " + told.release + " " + told.machine;
  const std::string version = output_of({"sw_vers", "-productVersion"}, "/dev/null");
  return version.empty() ? text : "macOS " + version + ", " + text;
}

// Elements or members, a line each, between the two brackets.
template <typename All, typename F>
std::string list(const char* brackets, const All& all, const F& text_of) {
  std::string text(1, brackets[0]);
  const char* separator = "\n    ";
  for (const auto& each : all) {
    text += separator + text_of(each);
    separator = ",\n    ";
  }
  return text + "\n  " + brackets[1];
}

}  // namespace

std::string digest_of(const std::string& path) {
  for (const std::vector<std::string>& tool :
       {std::vector<std::string>{"sha256sum"}, {"shasum", "-a", "256"}}) {
    const std::string digest = output_of(tool, path).substr(0, 64);
    if (digest.size() == 64) return digest;
  }
  return {};
}

timing timing_of(std::vector<std::chrono::nanoseconds> times) {
  std::sort(times.begin(), times.end());
  const auto in_ms = [](std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1e6;
  };
  return {in_ms(times.front()), in_ms(times[times.size() / 2]), in_ms(times.back())};
}

void write_report(const std::string& path, const session& s, const std::vector<finding>& findings) {
  const std::string& library = s.chosen.library;
  const auto text_of_finding = [](const finding& each) {
    return "{\"name\": " + json(each.name) + ", \"outcome\": " + json(each.outcome) +
           ", \"detail\": " + json(each.detail) + "}";
  };
  const auto text_of_times = [](const auto& each) {
    const timing time = timing_of(each.second);
    std::ostringstream text;
    text << json(each.first) << ": {\"calls\": " << each.second.size()
         << ", \"least\": " << time.least << ", \"median\": " << time.median
         << ", \"most\": " << time.most << "}";
    return text.str();
  };
  const auto text_of_saying = [](const session::saying& each) {
    return "{\"call\": " + json(each.call) + ", \"length\": " + std::to_string(each.length) +
           ", \"other_thread\": " + (each.other_thread ? "true" : "false") +
           ", \"after_removal\": " + (each.after_removal ? "true" : "false") + "}";
  };
  const auto text_of_print = [](const auto& each) {
    return json(each.first) + ": " + json(virtual_reader::quoted(each.second));
  };
  std::ofstream file(path);
  file << "{\n  \"report\": \"library-check 1\",\n  \"library\": "
       << json(library.substr(library.rfind('/') + 1))
       << ",\n  \"sha256\": " << json(digest_of(library))
       << ",\n  \"system\": " << json(system_name())
       << ",\n  \"expectations\": " << list("[]", findings, text_of_finding)
       << ",\n  \"milliseconds\": " << list("{}", s.times, text_of_times)
       << ",\n  \"said\": " << list("[]", s.said, text_of_saying)
       << ",\n  \"printed\": " << list("{}", s.printed, text_of_print) << "\n}\n"
       << std::flush;
  if (!file) throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace bringup
