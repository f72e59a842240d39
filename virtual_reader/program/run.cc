#include "run.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <map>
#include <thread>

#include "control.h"
#include "host.h"
#include "line_host.h"
#include "outcome.h"
#include "printer.h"
#include "script.h"
#include "server.h"
#include "socket_path.h"
#include "terminal.h"
#include "tokens.h"
#include "ui.h"

namespace virtual_reader {

namespace {

using channel = printer::channel;

// The LED in its colour.
std::string coloured(const std::string& text) {
  static const std::map<std::string, std::string> colours = {{"led red", "31"},
                                                             {"led green", "32"},
                                                             {"led amber", "33"},
                                                             {"led off", "90"},
                                                             {"led auto", "90"}};
  const auto colour = colours.find(text);
  return colour == colours.end() ? text : "\x1b[" + colour->second + "m\u25CF\x1b[0m " + text;
}

// On a terminal where another program speaks too, the reader's lines are marked and stand back.
std::string marked(const std::string& text) { return "\x1b[2m  reader \u2502 " + text + "\x1b[0m"; }
std::string marked_and_coloured(const std::string& text) {
  const std::string shown = coloured(text);
  return shown == text ? marked(text) : "\x1b[2m  reader \u2502 \x1b[0m" + shown;
}

printer::look_function look_on(int descriptor, bool alone) {
  const char* const no_colour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  const bool is_plain = !isatty(descriptor) || (no_colour && *no_colour);
  if (is_plain) return [](const std::string& text) { return text; };
  return alone ? coloured : marked_and_coloured;
}

void print(channel where, const std::string& lines) {
  write_all(where == channel::output ? STDOUT_FILENO : STDERR_FILENO, lines);
}

// Blocked in every thread, for one to wait for, which then calls the function.
void handle_signals(const std::function<void()>& interrupt) {
  static sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  std::thread([interrupt] {
    for (int number = 0; sigwait(&signals, &number) == 0;) interrupt();
  }).detach();
}

// What belongs together while it runs. Members are used by threads that are never joined, so that
// an object is never destroyed: the process ends.
class running {
 public:
  running(const options& options_given, std::optional<script> played,
          std::vector<recorded_call> replayed)
      : chosen(options_given),
        recording(std::move(replayed)),
        has_host(!chosen.command.empty()),
        file(std::move(played)),
        watching(has_host ? std::make_unique<guardian>(make_private_folder()) : nullptr),
        path(has_host && chosen.socket.empty() ? watching->socket_path()
                                               : chosen_socket_path(chosen, true)),
        has_played(!file && isatty(STDIN_FILENO)) {}

  [[noreturn]] void run();

 private:
  session make_session();
  void carry_out_all();
  bool carry_out_input(const session& told);
  void start_host();
  void send_to_host(const std::string& where, const std::string& command,
                    const std::string& answer);
  std::string place() const { return file ? file->place() : "standard input"; }
  int status_of_an_end() const { return file && !has_played ? cut_off : passed; }
  void fail(const std::string& lines);
  void say_verdict(const verdict& said);

  const options chosen;
  const std::vector<recorded_call> recording;
  const bool has_host;
  std::optional<script> file;
  std::unique_ptr<guardian> watching;
  const std::string path;
  outcome end;
  std::atomic<bool> has_played;  // also when nobody counts on what is typed
  std::atomic<std::uint64_t> tellers_cursor{1}, own_cursor{1};
  std::unique_ptr<terminal> typed_at;  // null if standard input is none, or not listened to
  std::unique_ptr<device> reader;
  std::unique_ptr<server> listening;
  std::unique_ptr<printer> printed;
  std::unique_ptr<line_host> lines_of_host;
  std::mutex mutex;
  // Guarded by mutex:
  host* started = nullptr;
  std::string first_failure;
};

void running::fail(const std::string& lines) {
  printed->say(channel::error, lines);
  const std::lock_guard<std::mutex> lock(mutex);
  if (!first_failure.empty()) return;
  // Its first line, but for what leads to the next, and the word that the verdict has.
  first_failure = lines.substr(0, std::min(lines.find('\n'), lines.find("; since then:")));
  const std::string word = "FAILED: ";
  const std::size_t at = first_failure.find(word);
  if (at != first_failure.npos) first_failure.erase(at, word.size());
}

void running::start_host() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!has_host || started || end.is_set()) return;
  const auto on_line = [this](const std::string& line) {
    if (lines_of_host->take(line)) reader->log.add(0, "received " + without_controls(line));
  };
  const auto on_end = [this](int status) {
    reader->log.add(0, "command exited with " + status_text(status));
    // That there is nothing more on standard input may not have been seen yet.
    for (int i = 0; i < 50 && !file && !has_played && !end.is_set(); ++i) poll(nullptr, 0, 10);
    if (has_played && status == 0) return end.set(passed, "");
    const std::string when =
        file ? " at " + place() + ", before all was played" : ", before standard input did";
    end.set(host_failed,
            "the command exited with " + status_text(status) + (has_played ? "" : when));
  };
  started = new host(chosen.command, path, *watching, on_line, on_end);
}

// From any thread. It is started if it was not yet.
void running::send_to_host(const std::string& where, const std::string& command,
                           const std::string& answer) {
  try {
    start_host();
  } catch (const std::runtime_error& error) {
    end.set(host_failed, error.what());
    throw cancelled();
  }
  lines_of_host->send(where, command, answer, [this] { return end.is_set(); });
}

session running::make_session() {
  session_callbacks around;
  around.answer = [this](const std::string& line) {
    printed->say(has_host ? channel::error : channel::output, (typed_at ? "" : "= ") + line + "\n");
  };
  around.is_interrupted = [this] { return end.is_set(); };
  around.trace = [this](tracing wanted) { printed->trace(wanted); };
  around.quit = [this] { end.set(passed, ""); };
  if (has_host) {
    around.host = [this](const std::string& command, const std::string& answer) {
      send_to_host(place(), command, answer);
    };
  }
  return {*reader, own_cursor, around};
}

// What comes on standard input, whatever becomes of it. Returns whether all went well.
bool running::carry_out_input(const session& told) {
  bool held = true;
  int number = 0;
  start_host();
  const auto report = [this](const std::string& lines) { fail(lines); };
  bool is_cut = false;  // the line before, whose rest is still to be read
  const auto next_line = [&]() -> std::optional<std::string> {
    if (typed_at) return typed_at->next_line();
    if (is_cut) std::cin.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    std::string line;
    if (!read_line(std::cin, &line)) return {};
    is_cut = line.size() > longest_line;
    return line;
  };
  for (auto line = next_line(); line && !end.is_set(); line = next_line()) {
    ++number;
    const std::string label = typed_at ? "" : "line " + std::to_string(number) + ": ";
    held &= carry_out(told, *line, label, report);
    if (end.is_set()) break;
  }
  return held;
}

void running::carry_out_all() try {
  const session told = make_session();
  const auto is_over = [this] { return end.is_set(); };
  const auto report = [this](const std::string& lines) { fail(lines); };
  const auto start = [this] { start_host(); };
  const bool held = file ? file->play(told, {chosen.keep_going != 0, start, is_over, report})
                         : carry_out_input(told);
  if (held || chosen.keep_going) lines_of_host->wait_for_answers(is_over);
  has_played = true;
  if (held && chosen.stay) return reader->log.add(0, "input ended");
  // A recording alone is over when it has been played, or the host ends.
  if (has_host && !chosen.replay.empty() && !file) {
    told.execute("expect replay ended within 86400000");
  }
  // Without either, what COMMAND does is all there is: its input ends with this one, and it ends
  // all.
  if (held && started && chosen.replay.empty() && !file) return started->close_input();
  end.set(passed, "");
} catch (const cancelled&) {
} catch (const std::runtime_error& error) {
  end.set(host_failed, error.what());
}

void running::say_verdict(const verdict& said) {
  static const char* const words[] = {"passed", "FAILED", "wrong", "the HOST FAILED", "CUT OFF"};
  std::string line = std::string("virtual-reader: ") + words[said.status];
  if (!said.why.empty()) line += ": " + said.why;
  const bool nobody_came =
      reader->log.last(1, [](const auto& e) { return e.text == "agent attached"; }).empty();
  if (said.status != passed && said.status != cut_off && nobody_came)
    line += " (no agent has come)";
  printed->say(channel::error, line + "\n");
}

void running::run() {
  if (!file && !has_host && isatty(STDIN_FILENO)) typed_at = std::make_unique<terminal>();
  // A file that is cut off has not held; all else goes on until it is ended somehow.
  handle_signals([this] { end.set(has_host ? cut_off : status_of_an_end(), "interrupted"); });
  session_callbacks of_tellers;
  std::atomic<printer*> printing{nullptr};
  of_tellers.trace = [&](tracing wanted) {
    if (printer* const p = printing) p->trace(wanted);
  };
  of_tellers.quit = [this] { end.set(status_of_an_end(), "told to quit"); };
  if (has_host) {
    of_tellers.host = [this](const std::string& command, const std::string& answer) {
      send_to_host("--execute", command, answer);
    };
  }
  reader = std::make_unique<device>(!chosen.unplugged, recording);
  const channel own = has_host ? channel::error : channel::output;
  printer::sink put = print;
  if (typed_at) put = [this](channel, const std::string& lines) { typed_at->print(lines); };
  printed = std::make_unique<printer>(
      reader->log, own, put,
      look_on(has_host ? STDERR_FILENO : STDOUT_FILENO, typed_at != nullptr));
  printing = printed.get();
  lines_of_host = std::make_unique<line_host>(
      *reader, [this](const std::string& bytes) { return started && started->send(bytes); },
      [this](const std::string& where, const std::string& what) {
        fail(where + ": FAILED: " + what + "\n");
        if (!chosen.keep_going) end.set(expectation_failed, first_failure);
      });
  listening = std::make_unique<server>(
      *reader, path, [&](int socket, const std::function<bool()>& is_over) {
        serve_control(socket, is_over, *reader, tellers_cursor, of_tellers);
      });
  if (chosen.ui) start_ui(path);
  if (typed_at) {
    printed->say(own, "A virtual reader is on " + path +
                          (chosen.unplugged ? ", unplugged." : ", plugged in.") +
                          " Try `card hold 3AB1234/26`; `help` lists all, ^D ends.\n"
                          "No agent is there yet; one that runs searches every 10 s.\n");
  }
  std::thread([this] { carry_out_all(); }).detach();
  const std::string limit = std::to_string(chosen.timeout.count()) + " ms";
  const auto first = end.wait(chosen.timeout);
  verdict last = first ? *first : verdict{cut_off, "timed out after " + limit};
  if (!first) end.set(last.status, last.why);
  if (last.status == cut_off) {
    last.why += file && has_played ? " after all was played" : " at " + place();
  }
  std::unique_lock<std::mutex> lock(mutex);
  host* const to_end = started;
  lock.unlock();
  const host::ending ended = to_end ? to_end->end() : host::ending{};
  lock.lock();
  if (last.status == passed && !first_failure.empty()) last = {expectation_failed, first_failure};
  if (last.status == passed && !ended.what.empty()) {
    last = {ended.is_good ? passed : host_failed, ended.what};
  }
  lock.unlock();
  listening.reset();
  if (has_host) say_verdict(last);
  printed->end(std::chrono::seconds(2));
  if (typed_at) typed_at->restore();
  watching.reset();
  // At once: other threads may be waiting for input, and hold on to all of the above.
  _exit(last.status);
}

}  // namespace

std::string chosen_socket_path(const options& chosen, bool makes_folder) {
  if (!chosen.socket.empty()) return chosen.socket;
  if (makes_folder) make_default_socket_folder();
  if (default_socket_path_is_private()) return default_socket_path();
  throw std::runtime_error(default_socket_path() +
                           ": its folder must exist and be yours alone (mode 700)");
}

int run(const options& chosen) {
  std::optional<script> file;
  if (!chosen.file.empty()) {
    file.emplace(chosen.file);
    const bool is_right = file->check(!chosen.command.empty(),
                                      [](const std::string& l) { print(channel::error, l); });
    if (!is_right && !chosen.command.empty()) {
      print(channel::error, "virtual-reader: wrong: nothing was run\n");
    }
    if (!is_right) return wrong_usage;
  }
  std::vector<recorded_call> recording;
  if (!chosen.replay.empty()) recording = hurried(read_recording(chosen.replay), chosen.speed);
  running(chosen, std::move(file), std::move(recording)).run();
}

}  // namespace virtual_reader
