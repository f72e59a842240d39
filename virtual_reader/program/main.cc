// The virtual reader as a program: starting it plugs the reader in, ending it pulls it out.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <mutex>

#include "line_source.h"
#include "signals.h"
#include "verbs.h"

namespace {

using namespace virtual_reader;

const char usage[] =
    "usage: virtual-reader [--socket PATH] [--unplugged] [--stay] [FILE]\n"
    "Plugs a virtual reader in, and carries out verbs from FILE or standard input; `help` is one\n"
    "of them. At the end of its input it pulls the reader out, unless --stay is given.\n";

struct options {
  std::string socket, file;
  bool plugged = true, stay = false;
};

// False if they are wrong.
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

// Prints lines as they come, from any thread; the LED in its colour on a terminal.
class printer {
 public:
  void print(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::string dot;
    if (coloured && line.rfind("led ", 0) == 0) {
      const char* const number = line == "led red"     ? "31"
                                 : line == "led green" ? "32"
                                 : line == "led amber" ? "33"
                                                       : "90";
      dot = std::string("\x1b[") + number + "m\u25CF\x1b[0m ";
    }
    const std::string text = dot + line + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
  }

 private:
  static bool wants_colour() {
    const char* const no = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): at start
    return isatty(STDOUT_FILENO) && (!no || !*no);
  }
  const bool coloured = wants_colour();
  std::mutex mutex;
};

int run(const options& chosen) {
  const int input = chosen.file.empty() ? STDIN_FILENO : open(chosen.file.c_str(), O_RDONLY);
  if (input < 0) throw std::runtime_error("cannot read " + chosen.file);
  printer out;
  const auto print = [&](const std::string& line) { out.print(line); };
  device* waiting = nullptr;
  std::mutex mutex;  // guards waiting
  const ending_signals signals([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    if (waiting) waiting->end_waits();
  });
  if (chosen.socket.empty()) {
    make_default_socket_folder();
    if (!default_socket_path_is_private()) {
      throw std::runtime_error(default_socket_path() + ": its folder must be yours, with mode 700");
    }
  }
  const std::string path = chosen.socket.empty() ? default_socket_path() : chosen.socket;
  device reader(path, print, chosen.plugged);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    waiting = &reader;
  }
  if (isatty(input)) {
    print(std::string("A virtual reader is ") + (chosen.plugged ? "plugged in" : "not plugged in") +
          " on " + path + ". Try `card queue 3AB1234/26`; `help` lists all, ^D ends.");
  }

  verbs interpreter(reader, print);
  line_source lines(input, signals.descriptor());
  const std::string place = chosen.file.empty() ? "line " : chosen.file + ":";
  bool understood = true;
  for (int number = 1; !interpreter.quit_requested(); ++number) {
    const auto line = lines.next();
    if (!line) break;
    const std::string error = interpreter.run(*line);
    if (error.empty()) continue;
    understood = false;
    std::cerr << place << number << ": " << error << std::endl;
  }
  if (chosen.stay && !interpreter.quit_requested()) first_readable(signals.descriptor(), -1);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    waiting = nullptr;
  }
  return understood && interpreter.expectations_held() ? 0 : 1;
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
