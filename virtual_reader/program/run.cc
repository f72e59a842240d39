#include "run.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>

#include "control.h"
#include "event_json.h"
#include "guardian.h"
#include "line_input.h"
#include "printer.h"
#include "server.h"
#include "signal_watch.h"
#include "socket_path.h"
#include "tested_command.h"
#include "tokens.h"
#include "ui.h"

namespace virtual_reader {

namespace {

using channel = printer::channel;
using std::chrono::milliseconds;

// After which a replay gives up: without an agent, and beyond three times the recording's length.
constexpr milliseconds replay_grace{30'000};
// In which an end of standard input is noticed that came with the command's exit.
constexpr milliseconds input_grace{500};
constexpr milliseconds output_grace{2000};  // in which somebody may read what was printed

// What belongs to a run. It plays as soon as it is constructed.
class test_run {
 public:
  test_run(const options& options, const run_parts& parts);
  test_run(const test_run&) = delete;
  test_run& operator=(const test_run&) = delete;

  // Waits for its end, and ends what is executed and the command. To be called once.
  verdict finish();

 private:
  bool has_replay() const { return !parts.recording.empty(); }
  std::string place() const { return played ? played->place() : "standard input"; }
  session_callbacks shared_callbacks();
  run_state state();
  void write_events();

  void play();
  bool play_script(const session& session);
  bool play_input(const session& session);
  bool wait_until(const std::function<bool()>& holds, moment until);
  void wait_for_replay();
  void report(const std::string& lines);

  tested_command* start_command();
  void send(const std::string& line);
  void handle_signal(int number);

  verdict judge_exit();
  verdict judge_end(const tested_command::ending& ended);

  const options& chosen;
  const run_parts parts;
  script* const played;  // null: standard input
  const bool has_command, is_typed;
  const channel own_channel;  // of the reader: standard output is the command's
  outcome end;
  std::atomic<bool> has_played{false}, has_page{false};
  std::atomic<bool> is_line_cancelled{false};  // the one that was typed

  const std::unique_ptr<guardian> guard;  // null without a command
  const std::string path;
  line_input input;
  device reader;
  expectations control_expectations, own_expectations;
  printer printed;
  std::uint64_t next_event = 1;                // the follower's
  const std::unique_ptr<log_follower> events;  // writes them to a file; null without one

  std::mutex mutex;
  std::optional<tested_command> command;  // guarded by mutex until it is started

  std::optional<control_page> page;  // which exits after the server
  server listening;
  signal_watch signals;
  std::future<void> playing;
};

test_run::test_run(const options& options, const run_parts& run_parts)
    : chosen(options),
      parts(run_parts),
      played(parts.played),
      has_command(!chosen.command.empty()),
      is_typed(!played && !has_command && isatty(STDIN_FILENO)),
      own_channel(has_command ? channel::error : channel::output),
      guard(has_command ? std::make_unique<guardian>() : nullptr),
      path(guard && chosen.socket.empty() ? guard->folder.socket_path()
                                          : choose_socket_path(chosen, true)),
      input(longest_line),
      reader(!chosen.is_unplugged, parts.recording),
      control_expectations(reader),
      own_expectations(played ? expectations(reader, played->effects()) : expectations(reader)),
      printed(reader.log, own_channel, !has_command),
      events(parts.events ? std::make_unique<log_follower>(reader.log, [this] { write_events(); })
                          : nullptr),
      listening(reader, path,
                [this](int socket, const std::function<bool()>& is_over) {
                  serve_control(socket, is_over, reader, control_expectations, shared_callbacks());
                }),
      signals([this](int number) { handle_signal(number); }) {
  if (is_typed) {
    printed.print(channel::output, "A virtual reader listens on " + path +
                                       (chosen.is_unplugged ? ", unplugged." : ", plugged in.") +
                                       " Try `card hold 3AB1234/26`; `help` lists the verbs, ^D " +
                                       "ends.\nNo agent connected (agents search every 10 s).\n");
  }
  if (chosen.has_ui) {
    page.emplace(path, [this](const std::string& why) { end.set(result::error, why); });
  }
  playing = std::async(std::launch::async, [this] { play(); });
}

void test_run::write_events() {
  for (const std::uint64_t until = reader.log.end(); next_event < until;) {
    for (const event& each : reader.log.read(next_event)) {
      if (!each.is_idle) *parts.events << to_json(each) << '\n';
      next_event = each.end();
    }
  }
  parts.events->flush();
}

// What a session of the run and one of a control client have in common.
session_callbacks test_run::shared_callbacks() {
  session_callbacks callbacks;
  callbacks.trace = [this](tracing wanted) { printed.trace(wanted); };
  callbacks.quit = [this] {
    const bool is_early = played && !has_played;
    end.set(is_early ? result::interrupted : result::passed, is_early ? "by `quit`" : "");
  };
  callbacks.run = [this] { return state(); };
  callbacks.followed = [this] {
    has_page = true;
    reader.log.wake();
  };
  if (has_command) {
    callbacks.send = [this](const std::string& line) { send(line); };
  }
  return callbacks;
}

run_state test_run::state() {
  run_state now;
  const std::lock_guard<std::mutex> lock(mutex);
  if (has_command) {
    std::string text;
    for (const std::string& word : chosen.command) text += (text.empty() ? "" : " ") + word;
    now.command_under_test = {text, command && !command->status(), command && command->is_agent()};
  }
  if (played) now.played = {played->path, played->line_number(), has_played, played->lines};
  return now;
}

void test_run::report(const std::string& lines) {
  printed.print(channel::error, lines);
  end.fail(lines);
}

// The command, which is started if it was not yet; null if the run is over.
tested_command* test_run::start_command() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (command || end.is_set()) return command ? &*command : nullptr;
  const auto on_line = [this](const std::string& line) {
    reader.log.add(0, "received " + plain_line(line));
  };
  const auto on_exit = [this](const exit_status& status) {
    reader.log.add(0, "command exited with " + status.text());
    end.set(result::command_failed);  // see judge_exit
  };
  return &command.emplace(chosen.command, path, *guard, on_line, on_exit);
}

// From any thread.
void test_run::send(const std::string& line) {
  tested_command* const to = start_command();
  if (!to) throw cancelled();
  const std::string addressed = to->addressed(line);
  reader.log.add(0, "sent " + without_controls(addressed));
  if (!to->send(addressed + "\n")) throw failed_expectation("command does not read its input", {});
}

void test_run::handle_signal(int number) {
  if (number == SIGINT && is_typed) {  // ends the line, not the reader
    is_line_cancelled = true;
    return reader.log.wake();
  }
  const bool is_cut_off = has_command || (played && !has_played);
  end.set(is_cut_off ? result::interrupted : result::passed);
}

void test_run::play() try {
  session_callbacks callbacks = shared_callbacks();
  callbacks.answer = [this](const std::string& line) {
    printed.print(own_channel, (is_typed ? "" : "= ") + line + "\n");
  };
  callbacks.trace = [this](tracing wanted) {
    printed.print(own_channel, "");  // what was in the log, as it was wanted before
    printed.trace(wanted);
  };
  callbacks.is_interrupted = [this] { return end.is_set() || is_line_cancelled; };
  callbacks.quit = [this] { end.set(result::passed); };
  const session session(reader, own_expectations, callbacks);
  if (page && played) wait_until([this] { return has_page.load(); }, never);
  bool is_well = played ? play_script(session) : play_input(session);
  if (is_well && has_replay() && has_command) wait_for_replay();
  has_played = true;
  if (is_well && chosen.should_stay) return reader.log.add(0, "input ended");
  // Without a script, what the command does is all there is: its input ends with this one.
  tested_command* const to_end =
      has_command && !played && !has_replay() ? start_command() : nullptr;
  if (is_well && to_end) return to_end->close_input();
  end.set(result::passed);
} catch (const cancelled&) {
} catch (const std::exception& error) {
  end.set(result::command_failed, std::string("cannot run ") + error.what());
}

bool test_run::play_script(const session& session) {
  return played->play(session, {chosen.should_keep_going != 0,
                                [this] {
                                  if (has_command) start_command();
                                },
                                [this] { return end.is_set(); },
                                [this](const std::string& lines) { report(lines); }});
}

// Runs what comes on standard input, all of it whatever goes wrong. Returns whether nothing did.
bool test_run::play_input(const session& session) {
  if (has_command) start_command();
  bool is_well = true;
  int number = 0;
  for (auto line = input.next_line(); line && !end.is_set(); line = input.next_line()) {
    ++number;
    const std::string label = is_typed ? "" : "line " + std::to_string(number) + ": ";
    is_line_cancelled = false;
    try {
      is_well &= run_line(session, *line, label, [this](const std::string& l) { report(l); });
    } catch (const cancelled&) {
      if (end.is_set()) throw;
    }
    if (end.is_set()) throw cancelled();
  }
  return is_well;
}

// Whether it holds in time. Throws cancelled at the end of the run.
bool test_run::wait_until(const std::function<bool()>& holds, moment until) {
  const auto is_over = [&] { return end.is_set() || holds(); };
  for (;;) {
    const std::uint64_t next = reader.log.end();
    if (holds()) return true;
    if (end.is_set()) throw cancelled();
    if (std::chrono::steady_clock::now() >= until) return false;
    reader.log.wait(next, until, is_over);
  }
}

void test_run::wait_for_replay() {
  start_command();
  if (!wait_until([this] { return reader.attached_count() > 0; }, in(replay_grace))) {
    return report("FAILED: no agent attached within " + std::to_string(replay_grace.count()) +
                  " ms\n");
  }
  const auto length = std::chrono::ceil<milliseconds>(parts.recording.back().ended);
  const milliseconds limit = replay_grace + 3 * length;
  if (!wait_until([this] { return reader.replay_progress().has_ended; }, in(limit))) {
    report("FAILED: the recording was not played to its end within " +
           std::to_string(limit.count()) + " ms\n");
  }
}

verdict test_run::judge_exit() {
  if (!played) playing.wait_for(input_grace);
  const exit_status status = *start_command()->status();
  if (has_played && status.is_success()) return {result::passed};
  const std::string what = (played ? place() + ": " : "") + "command exited with " + status.text();
  const std::string before = played         ? " before the script finished"
                             : has_replay() ? " before the recording ended"
                                            : " before standard input ended";
  return {result::command_failed, what + (has_played ? "" : before)};
}

// Of a run that came to its end.
verdict test_run::judge_end(const tested_command::ending& ended) {
  const auto replay = reader.replay_progress();
  const verdict failure = end.failure();
  if (failure.what == result::failed) return failure;
  if (!ended.is_good) return {result::command_failed, "command " + ended.what};
  if (has_command && played && !has_played) {
    return {result::failed, place() + ": `quit` before the end of the script"};
  }
  if (has_command && (played || has_replay()) && reader.attached_count() == 0) {
    return {result::failed, "nothing was tested"};
  }
  if (has_command && played && own_expectations.held() == 0 && !has_replay()) {
    return {result::failed, "nothing was tested: no `expect` held, but for `expect no`"};
  }
  if (has_command && has_replay() && !replay.has_ended) {
    return {result::failed, "the recording was not played to its end"};
  }
  if (has_command && has_replay() && replay.has_diverged && !chosen.is_lenient) {
    return {result::failed, "the calls diverged from the recording; see `replay diverged`"};
  }
  return {result::passed, ended.what.empty() ? "" : "command " + ended.what};
}

verdict test_run::finish() {
  verdict found = end.wait(chosen.timeout);
  if (found.what == result::command_failed && found.why.empty()) found = judge_exit();
  input.cancel();
  reader.log.wake();
  if (playing.wait_for(output_grace) != std::future_status::ready) printed.cancel();
  playing.wait();
  tested_command* const started = start_command();  // starts none any more
  const tested_command::ending ended = started ? started->end() : tested_command::ending{};
  if (found.what == result::timed_out || found.what == result::interrupted) {
    found.why += (found.why.empty() ? "" : " ") +
                 (played && has_played ? "after the script finished" : "at " + place());
  }
  if (found.what == result::passed) found = judge_end(ended);
  const bool is_failure = found.what == result::failed || found.what == result::command_failed;
  if (is_failure && has_command && reader.attached_count() == 0) {
    found.why += " (no agent connected)";
  }
  if (has_command) reader.log.add(0, "verdict " + found.text());
  return found;
}

}  // namespace

std::string choose_socket_path(const options& chosen, bool should_make_folder) {
  if (!chosen.socket.empty()) return chosen.socket;
  if (should_make_folder) make_default_socket_folder();
  if (default_socket_path_is_private()) return default_socket_path();
  throw std::runtime_error(default_socket_path() +
                           ": its folder must exist and be yours alone (mode 700)");
}

verdict run(const options& options, const run_parts& parts) {
  return test_run(options, parts).finish();
}

}  // namespace virtual_reader
