// The virtual reader as a program: starting it plugs the reader in, ending it pulls it out.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "socket_path.h"
#include "verbs.h"

namespace {

using namespace virtual_reader;

const char usage[] =
    "usage: virtual-reader [--socket PATH] [--unplugged] [--stay] [FILE]\n"
    "Plugs a virtual reader in and carries out verbs from FILE or standard input; `help` is one "
    "of\n"
    "them. Pulls the reader out at the end of its input, or with --stay at a signal.\n";

struct options {
  int unplugged = 0, stay = 0, help = 0;
  std::string socket, file;
};

// False if they are wrong.
bool parse(int count, char** arguments, options* chosen) {
  const option known[] = {{"help", no_argument, &chosen->help, 1},
                          {"socket", required_argument, nullptr, 's'},
                          {"stay", no_argument, &chosen->stay, 1},
                          {"unplugged", no_argument, &chosen->unplugged, 1},
                          {}};
  for (int found = 0; found != -1;) {
    found = getopt_long(count, arguments, "", known, nullptr);
    if (found == 's') chosen->socket = optarg;
    if (found == '?') return false;
  }
  if (optind < count) chosen->file = arguments[optind++];
  return optind >= count;
}

// Prints whole lines, from any thread; the LED in its colour on a terminal.
void print(const std::string& line) {
  static const char* const no_colour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  static const bool coloured = isatty(STDOUT_FILENO) && (!no_colour || !*no_colour);
  static const std::map<std::string, std::string> colours = {
      {"led red", "31"}, {"led green", "32"}, {"led amber", "33"},
      {"led off", "90"}, {"led own", "90"},   {"led dark", "90"}};
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  const auto colour = colours.find(line);
  if (coloured && colour != colours.end()) {
    std::cout << "\x1b[" << colour->second << "m\u25CF\x1b[0m ";
  }
  std::cout << line << std::endl;
  std::cout.clear();  // whoever reads it may go
}

// The given path or the default one, whose folder is there then.
std::string socket_path(const options& chosen) {
  if (!chosen.socket.empty()) return chosen.socket;
  make_default_socket_folder();
  if (default_socket_path_is_private()) return default_socket_path();
  throw std::runtime_error(default_socket_path() +
                           ": its folder must exist and be yours alone (mode 700)");
}

// Carries out all lines. Returns whether the last was `quit`.
bool carry_out(std::istream& input, const std::string& place, device& reader,
               std::atomic<int>& status) {
  int number = 0;
  verbs interpreter(reader, print, [&] {
    const bool done = !input.seekg(0).fail();
    input.clear();
    if (done) number = 0;
    return done;
  });
  for (std::string line; !interpreter.quit_requested() && std::getline(input, line);) {
    const std::string where = place + std::to_string(++number) + ": ";
    const std::string error = interpreter.run(line);
    if (!error.empty()) std::cerr << where << error << std::endl;
    if (!error.empty() || !interpreter.expectations_held()) status = 1;
  }
  if (input.bad()) {
    std::cerr << place << " cannot be read" << std::endl;
    status = 1;
  }
  return interpreter.quit_requested();
}

}  // namespace

int main(int count, char** arguments) try {
  options chosen;
  const bool right = parse(count, arguments, &chosen);
  if (!right || chosen.help) {
    (right ? std::cout : std::cerr) << usage;
    return right ? 0 : 2;
  }
  const bool from_file = !chosen.file.empty();
  std::ifstream file(chosen.file);
  if (from_file && !file) throw std::runtime_error("cannot read " + chosen.file);

  // Blocked in every thread, for this one to wait for.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const std::string path = socket_path(chosen);
  device reader(path, print, !chosen.unplugged);
  if (!from_file && isatty(STDIN_FILENO)) {
    print("A virtual reader is on " + path + (chosen.unplugged ? ", unplugged." : ", plugged in.") +
          " Try `card queue 3AB1234/26`; `help` lists all, ^D ends.");
  }
  std::atomic<int> status{0};
  std::thread([&] {
    std::istream& input = from_file ? file : std::cin;
    const bool quit = carry_out(input, from_file ? chosen.file + ":" : "line ", reader, status);
    if (quit || !chosen.stay) kill(getpid(), SIGTERM);
  }).detach();
  int number = 0;
  sigwait(&signals, &number);
  // Whoever reads what is printed may have stopped, and the reader waits for it.
  std::thread([&] {
    std::this_thread::sleep_for(std::chrono::seconds(2));
    unlink(path.c_str());
    _exit(1);
  }).detach();
  reader.end();
  // At once: the other thread may be waiting for input, and holds on to all of the above.
  _exit(status);
} catch (const std::exception& error) {
  std::cerr << "virtual-reader: " << error.what() << std::endl;
  return 2;
}
