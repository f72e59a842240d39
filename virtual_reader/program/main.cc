// The virtual reader as a program: starting it plugs the reader in, ending it pulls it out.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <map>
#include <thread>

#include "options.h"
#include "outcome.h"
#include "printer.h"
#include "screen.h"
#include "script.h"
#include "socket_path.h"
#include "tell.h"

namespace {

using namespace virtual_reader;
using channel = printer::channel;

// The LED in its colour.
std::string coloured(const std::string& text) {
  static const std::map<std::string, std::string> colours = {{"led red", "31"},
                                                             {"led green", "32"},
                                                             {"led amber", "33"},
                                                             {"led off", "90"},
                                                             {"led own", "90"}};
  const auto colour = colours.find(text);
  return colour == colours.end() ? text : "\x1b[" + colour->second + "m\u25CF\x1b[0m " + text;
}

printer::look_function look_on(int descriptor) {
  const char* const no_colour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  const bool is_coloured = isatty(descriptor) && (!no_colour || !*no_colour);
  return is_coloured ? coloured : [](const std::string& text) { return text; };
}

void print(channel where, const std::string& lines) {
  write_all(where == channel::output ? STDOUT_FILENO : STDERR_FILENO, lines);
}

// The given path or the default one, whose folder is there then.
std::string socket_path(const options& chosen) {
  if (!chosen.socket.empty()) return chosen.socket;
  if (!chosen.tell) make_default_socket_folder();
  if (default_socket_path_is_private()) return default_socket_path();
  throw std::runtime_error(default_socket_path() +
                           ": its folder must exist and be yours alone (mode 700)");
}

// Takes its signals one by one: blocked in every thread, for this to wait for.
void handle_signals(outcome* end, int status_of_a_signal) {
  static sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  std::thread([end, status_of_a_signal] {
    for (int number = 0; sigwait(&signals, &number) == 0;) {
      end->set(status_of_a_signal, "interrupted");
    }
  }).detach();
}

// Carries out what comes on standard input, up to its end. Returns whether all went well.
bool carry_out_input(const session& with, const outcome& end, const report_function& report) {
  bool held = true;
  int number = 0;
  for (std::string line; !end.is_set() && std::getline(std::cin, line);) {
    held &= carry_out(with, line, "line " + std::to_string(++number) + ": ", report);
  }
  return held;
}

int run(const options& chosen) {
  std::optional<script> file;
  if (!chosen.file.empty()) {
    file.emplace(chosen.file);
    const auto report = [](const std::string& lines) { print(channel::error, lines); };
    if (!file->check(!chosen.command.empty(), report)) return wrong_usage;
  }
  const std::string path = socket_path(chosen);
  outcome end;
  // A file that is cut off has not held, but all else goes on until it is ended somehow.
  handle_signals(&end, file && !chosen.stay ? cut_off : passed);

  std::atomic<std::uint64_t> tellers_cursor{1}, own_cursor{1};
  std::atomic<printer*> printing{nullptr};
  surroundings for_all;
  for_all.trace = [&](tracing wanted) {
    if (printer* const p = printing) p->trace(wanted);
  };
  for_all.quit = [&] { end.set(passed, "quit"); };
  device reader(path, !chosen.unplugged, [&](int socket, const std::function<bool()>& is_over) {
    serve_teller(socket, is_over, reader, tellers_cursor, for_all);
  });
  if (chosen.screen) start_screen(path);
  printer printed(reader.happened, channel::output, print, look_on(STDOUT_FILENO));
  printing = &printed;
  const auto report = [&](const std::string& lines) { printed.say(channel::error, lines); };
  if (!file && isatty(STDIN_FILENO)) {
    printed.say(channel::output, "A virtual reader is on " + path +
                                     (chosen.unplugged ? ", unplugged." : ", plugged in.") +
                                     " Try `card queue 3AB1234/26`; `help` lists all, ^D ends.\n");
  }
  surroundings around = for_all;
  around.answer = [&](const std::string& line) {
    printed.say(channel::output, "= " + line + "\n");
  };
  around.host = [&](const std::string& command, const std::string& answer) {
    printed.say(channel::output,
                "host " + command + (answer.empty() ? "" : " -> " + answer) + "\n");
  };
  around.is_interrupted = [&] { return end.is_set(); };
  const session told(reader, own_cursor, around);
  std::thread([&] {
    bool held = false;
    try {
      held = file ? file->play(
                        told, {chosen.keep_going != 0, [] {}, [&] { return end.is_set(); }, report})
                  : carry_out_input(told, end, report);
    } catch (const interruption&) {
    }
    if (!held || !chosen.stay) end.set(held ? passed : expectation_failed, "");
  }).detach();
  const int status = end.wait({})->status;
  reader.end();
  printed.end(std::chrono::seconds(2));
  // At once: other threads may be waiting for input, and hold on to all of the above.
  _exit(status);
}

}  // namespace

int main(int count, char** arguments) try {
  const auto chosen = parse_options(count, arguments);
  if (!chosen) return wrong_usage;
  if (chosen->help) std::cout << usage;
  if (chosen->version) std::cout << "virtual-reader " VERSION "\n";
  if (chosen->help || chosen->version) return passed;
  return chosen->tell ? tell(socket_path(*chosen), *chosen->tell) : run(*chosen);
} catch (const std::exception& error) {
  std::cerr << "virtual-reader: " << error.what() << std::endl;
  return wrong_usage;
}
