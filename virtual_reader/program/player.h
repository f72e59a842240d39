// Plays what a run consists of: a script or standard input, the command under test, a recording.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "cancellation.h"
#include "guardian.h"
#include "options.h"
#include "printer.h"
#include "run.h"
#include "run_end.h"
#include "session.h"
#include "tested_command.h"

namespace virtual_reader {

class player {
 public:
  // `watching` is null without a command. All others outlive it.
  player(const options& options, const run_parts& parts, const std::string& socket_path,
         const guardian* watching, device& reader, printer& printed, run_end& end);

  // Starts the command before the first verb that waits. Sets the end of the run, unless the run
  // is to go on after the last verb. On a thread of its own.
  void play();

  // From any thread:
  void cancel();                  // once the end of the run is set
  void cancel_line();             // the one that was typed
  session_callbacks callbacks();  // what all sessions of the run have in common
  bool has_played() const { return is_played; }
  bool is_typed() const { return typed; }
  std::string place() const { return script ? script->place() : "standard input"; }

  // Once play() has returned:
  std::size_t held() const { return expected.held(); }
  tested_command* command() { return started; }  // null if it was not started

 private:
  bool play_script(const session& session);
  bool play_input(const session& session);
  bool wait_until(const std::function<bool()>& holds, moment until);
  bool wait_for_replay();
  void start_command();
  void report(const std::string& lines);
  run_state state() const;

  const options& chosen;
  const run_parts& parts;
  virtual_reader::script* const script;
  const bool has_command, typed;
  const std::string& socket_path;
  const guardian* const watching;
  device& reader;
  printer& printed;
  run_end& end;
  expectations expected;
  cancellation input_ends;
  std::optional<tested_command> tested;           // play()'s,
  std::atomic<tested_command*> started{nullptr};  // and for others
  std::atomic<bool> is_played{false}, has_page{false}, is_line_cancelled{false};
};

}  // namespace virtual_reader
