// The virtual reader as a program: starting it plugs the reader in, ending it pulls it out.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <thread>

#include "verbs.h"

namespace {

using namespace virtual_reader;

const char usage[] =
    "usage: virtual-reader [--socket PATH] [--unplugged] [--stay] [FILE]\n"
    "Plugs a virtual reader in and carries out verbs from FILE or standard input; `help` is one "
    "of\n"
    "them. Pulls the reader out at the end of its input, or with --stay at a signal.\n";

struct options {
  std::string socket, file;
  bool plugged = true, stay = false;
};

bool parse(int count, char** given, options* chosen) {
  for (int i = 1; i < count; ++i) {
    const std::string text = given[i];
    if (text == "--unplugged") {
      chosen->plugged = false;
    } else if (text == "--stay") {
      chosen->stay = true;
    } else if (text == "--socket" && i + 1 < count) {
      chosen->socket = given[++i];
    } else if (text.empty() || text[0] == '-' || !chosen->file.empty()) {
      return false;
    } else {
      chosen->file = text;
    }
  }
  return true;
}

// Prints whole lines, from any thread; the LED in its colour on a terminal.
class printer {
 public:
  void print(const std::string& line) {
    std::string dot;
    if (coloured && line.rfind("led ", 0) == 0) {
      const std::string colour = line == "led red"     ? "31"
                                 : line == "led green" ? "32"
                                 : line == "led amber" ? "33"
                                                       : "90";
      dot = "\x1b[" + colour + "m\u25CF\x1b[0m ";
    }
    const std::lock_guard<std::mutex> lock(mutex);
    std::cout << dot << line << std::endl;
    std::cout.clear();  // whoever reads it may go
  }

 private:
  static bool wants_colour() {
    const char* const no = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): at start
    return isatty(STDOUT_FILENO) && (!no || !*no);
  }
  const bool coloured = wants_colour();
  std::mutex mutex;
};

std::string socket_path(const options& chosen) {
  if (!chosen.socket.empty()) return chosen.socket;
  make_default_socket_folder();
  if (default_socket_path_is_private()) return default_socket_path();
  throw std::runtime_error(default_socket_path() + ": its folder must be yours alone (mode 700)");
}

// Carries out the lines of the input. Returns whether the program is to end then.
bool carry_out(const options& chosen, std::istream& input, verbs& interpreter,
               std::atomic<int>* status) {
  const std::string place = chosen.file.empty() ? "line " : chosen.file + ":";
  std::string line;
  for (int number = 1; !interpreter.quit_requested() && std::getline(input, line); ++number) {
    const std::string error = interpreter.run(line);
    if (!error.empty()) std::cerr << place << number << ": " << error << std::endl;
    if (!error.empty() || !interpreter.expectations_held()) *status = 1;
  }
  return !chosen.stay || interpreter.quit_requested();
}

int run(const options& chosen) {
  std::ifstream file(chosen.file);
  struct stat found {};
  if (!chosen.file.empty() &&
      (!file || stat(chosen.file.c_str(), &found) != 0 || S_ISDIR(found.st_mode))) {
    throw std::runtime_error("cannot read " + chosen.file);
  }

  // Blocked in every thread, for this one to wait for.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  printer out;
  const auto print = [&](const std::string& line) { out.print(line); };
  const std::string path = socket_path(chosen);
  device reader(path, print, chosen.plugged);
  if (chosen.file.empty() && isatty(STDIN_FILENO)) {
    print("A virtual reader is on " + path + (chosen.plugged ? ", plugged in." : ", unplugged.") +
          " Try `card queue 3AB1234/26`; `help` lists all, ^D ends.");
  }
  std::atomic<int> status{0};
  std::thread([&] {
    verbs interpreter(reader, print);
    if (carry_out(chosen, chosen.file.empty() ? std::cin : file, interpreter, &status)) {
      kill(getpid(), SIGTERM);
    }
    sigset_t all;
    sigfillset(&all);
    for (;;) sigsuspend(&all);
  }).detach();
  int number = 0;
  sigwait(&signals, &number);
  reader.end();
  // At once: the other thread may be waiting for input, and holds on to all of the above.
  _exit(status);
}

}  // namespace

int main(int count, char** arguments) {
  options chosen;
  if (count == 2 && std::string(arguments[1]) == "--help") {
    std::cout << usage;
    return 0;
  }
  if (!parse(count, arguments, &chosen)) {
    std::cerr << usage;
    return 2;
  }
  try {
    return run(chosen);
  } catch (const std::exception& error) {
    std::cerr << "virtual-reader: " << error.what() << std::endl;
    return 2;
  }
}
