#include "player.h"

#include <unistd.h>

#include <utility>

#include "tokens.h"

namespace virtual_reader {

namespace {

// Beyond three times the recording's length, after which a replay gives up.
constexpr std::chrono::milliseconds replay_grace{30'000};

}  // namespace

player::player(const options& options, const run_parts& run_parts, const std::string& path,
               const guardian* guard, device& device, printer& printer, run_end& run_end)
    : chosen(options),
      parts(run_parts),
      script(parts.played),
      has_command(!chosen.command.empty()),
      typed(!script && !has_command && isatty(STDIN_FILENO)),
      socket_path(path),
      watching(guard),
      reader(device),
      printed(printer),
      end(run_end),
      expected(script ? expectations(reader, script->effects()) : expectations(reader)) {}

void player::cancel() {
  input_ends.cancel();
  reader.log.wake();
}

void player::cancel_line() {
  is_line_cancelled = true;
  reader.log.wake();
}

session_callbacks player::callbacks() {
  session_callbacks callbacks;
  callbacks.trace = [this](tracing wanted) { printed.trace(wanted); };
  callbacks.quit = [this] {
    const bool is_early = script && !is_played;
    end.set(is_early ? result::interrupted : result::passed, is_early ? "by `quit`" : "");
  };
  callbacks.run = [this] { return state(); };
  callbacks.followed = [this] {
    has_page = true;
    reader.log.wake();
  };
  if (has_command) {
    callbacks.send = [this](const std::string& line) {
      if (!started) throw failed_expectation("command has not been started", {});
      started.load()->send(line);
    };
  }
  return callbacks;
}

run_state player::state() const {
  run_state now;
  if (has_command) {
    std::string text;
    for (const std::string& word : chosen.command) text += (text.empty() ? "" : " ") + word;
    const tested_command* const known = started;
    now.command_under_test = {text, known && known->is_running(), known && known->is_agent()};
  }
  if (script) now.played = {script->path, script->line_number(), is_played, script->lines};
  return now;
}

void player::report(const std::string& lines) {
  printed.print(printer::channel::error, lines);
  end.fail(lines);
}

void player::start_command() {
  if (tested || !has_command) return;
  if (end.is_set()) throw cancelled();
  started = &tested.emplace(chosen.command, socket_path, *watching, reader.log,
                            [this] { end.set(result::command_failed); });  // see judge
}

void player::play() try {
  const auto channel = has_command ? printer::channel::error : printer::channel::output;
  session_callbacks all = callbacks();
  all.answer = [this, channel](const std::string& line) {
    printed.print(channel, (typed ? "" : "= ") + line + "\n");
  };
  all.trace = [this, channel](tracing wanted) {
    printed.print(channel, "");  // what was in the log, as it was wanted before
    printed.trace(wanted);
  };
  all.is_interrupted = [this] { return end.is_set() || is_line_cancelled; };
  all.quit = [this] { end.set(result::passed); };
  all.send = [this, send = all.send](const std::string& line) {
    start_command();
    send(line);
  };
  if (!has_command) all.send = nullptr;
  const session session(reader, expected, all);
  if (chosen.has_ui && script) wait_until([this] { return has_page.load(); }, never);
  const bool has_replay = has_command && !parts.recording.empty();
  bool is_well = script ? play_script(session) : play_input(session);
  if (is_well && has_replay) is_well = wait_for_replay();
  is_played = true;
  if (is_well && chosen.should_stay) return reader.log.add(0, "input ended");
  // Without a script, what the command does is all there is: its input ends with this one.
  if (is_well && tested && !script && !has_replay) return tested->close_input();
  end.set(result::passed);
} catch (const cancelled&) {
} catch (const std::exception& error) {
  end.set(result::command_failed, std::string("cannot run ") + error.what());
}

bool player::play_script(const session& session) {
  return script->play(session, {chosen.should_keep_going != 0, [this] { start_command(); },
                                [this] { return end.is_set(); },
                                [this](const std::string& lines) { report(lines); }});
}

// Runs what comes on standard input, all of it whatever goes wrong. Returns whether nothing did.
bool player::play_input(const session& session) {
  start_command();
  bool is_well = true;
  int number = 0;
  const auto run = [&](const std::string& line) {
    if (end.is_set()) throw cancelled();
    const std::string label = typed ? "" : "line " + std::to_string(++number) + ": ";
    is_line_cancelled = false;
    try {
      is_well &= run_line(session, line, label, [this](const std::string& l) { report(l); });
    } catch (const cancelled&) {
      if (end.is_set()) throw;
    }
  };
  input_ends.read_lines(STDIN_FILENO, longest_line, run, [](auto&) {});
  if (end.is_set()) throw cancelled();
  return is_well;
}

// Whether it holds in time. Throws cancelled at the end of the run.
bool player::wait_until(const std::function<bool()>& holds, moment until) {
  const auto is_over = [&] { return end.is_set() || holds(); };
  for (;;) {
    const std::uint64_t next = reader.log.end();
    if (holds()) return true;
    if (end.is_set()) throw cancelled();
    if (std::chrono::steady_clock::now() >= until) return false;
    reader.log.wait(next, until, is_over);
  }
}

bool player::wait_for_replay() {
  start_command();
  const auto length = std::chrono::ceil<std::chrono::milliseconds>(parts.recording.back().ended);
  const auto limit = replay_grace + 3 * length;
  if (wait_until([this] { return reader.replay_progress().has_ended; }, in(limit))) return true;
  report("FAILED: the recording was not played to its end within " + std::to_string(limit.count()) +
         " ms\n");
  return false;
}

}  // namespace virtual_reader
