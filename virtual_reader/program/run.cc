#include "run.h"

#include <signal.h>
#include <string.h>

#include <future>
#include <optional>
#include <stdexcept>

#include "control.h"
#include "event_json.h"
#include "guardian.h"
#include "log_follower.h"
#include "player.h"
#include "printer.h"
#include "server.h"
#include "socket_path.h"
#include "ui.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

// In which an end of standard input is noticed that came with the command's exit.
constexpr milliseconds input_grace{500};
constexpr milliseconds output_grace{2000};  // in which somebody may read what was printed

// Writes the event log to a stream, if there is one.
class event_writer {
 public:
  event_writer(const event_log& written, std::ostream* stream) : log(written), to(stream) {
    if (to) follower.emplace(log, [this] { write(); });
  }

 private:
  void write() {
    for (const std::uint64_t end = log.end(); next < end;) {
      for (const event& each : log.read(next)) {
        if (!each.is_idle) *to << to_json(each) << '\n';
        next = each.end();
      }
    }
    to->flush();
  }

  const event_log& log;
  std::ostream* const to;
  std::uint64_t next = 1;
  std::optional<log_follower> follower;
};

// Of a run that came to its end, and of its command.
verdict judge_end(const options& chosen, const run_parts& parts, const device& reader,
                  const player& player, const tested_command::ending& ended) {
  const bool has_replay = !parts.recording.empty();
  const auto replay = reader.replay_progress();
  if (!ended.is_good) return {result::command_failed, "command " + ended.what};
  const auto failed = [](const std::string& why) { return verdict{result::failed, why}; };
  if (chosen.command.empty() || (!parts.played && !has_replay))
    return {result::passed, ended.what.empty() ? "" : "command " + ended.what};
  if (parts.played && !player.has_played()) {
    return failed(player.place() + ": `quit` before the end of the script");
  }
  if (reader.attached_count() == 0) return failed("nothing was tested");
  if (!has_replay && player.held() == 0) {
    return failed("nothing was tested: no `expect` held, but for `expect no`");
  }
  if (has_replay && !replay.has_ended) return failed("the recording was not played to its end");
  if (replay.has_diverged && !chosen.is_lenient) {
    return failed("the calls diverged from the recording; see `replay diverged`");
  }
  return {result::passed, ended.what.empty() ? "" : "command " + ended.what};
}

verdict judge(const verdict& reason, const options& chosen, const run_parts& parts, run_end& end,
              const device& reader, player& player) {
  verdict found = reason;
  tested_command* const command = player.command();
  const tested_command::ending ended = command ? command->end() : tested_command::ending{};
  const std::string place = player.place() + ": ";
  if (command && found.what == result::command_failed && found.why.empty()) {  // it has exited
    const exit_status status = command->wait();
    found.why = (parts.played ? place : "") + "command exited with " + status.text();
    if (!player.has_played()) {
      found.why += parts.played               ? " before the script finished"
                   : !parts.recording.empty() ? " before the recording ended"
                                              : " before standard input ended";
    } else if (status.is_success()) {
      found = {result::passed};
    }
  }
  if (found.what == result::timed_out || found.what == result::interrupted) {
    const bool is_after = parts.played && player.has_played();
    found.why = is_after ? found.why + ", after the script finished" : place + found.why;
  }
  if (found.what == result::passed) {
    found = end.failure();
    if (found.what == result::passed) found = judge_end(chosen, parts, reader, player, ended);
  }
  const bool is_failure = found.what == result::failed || found.what == result::command_failed;
  if (is_failure && !chosen.command.empty() && reader.attached_count() == 0) {
    found.why += " (no agent connected)";
  }
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

verdict run(const options& chosen, const run_parts& parts) {
  const bool has_command = !chosen.command.empty();
  run_end end;
  std::optional<guardian> guard;
  if (has_command) guard.emplace(chosen.socket.empty());
  const std::string path = guard && chosen.socket.empty() ? guard->folder + "/reader.sock"
                                                          : choose_socket_path(chosen, true);
  device reader(!chosen.is_unplugged, parts.recording);
  printer printed(reader.log, has_command ? printer::channel::error : printer::channel::output,
                  !has_command);
  const event_writer events(reader.log, parts.events);
  player player(chosen, parts, path, guard ? &*guard : nullptr, reader, printed, end);
  if (player.is_typed()) {
    printed.print(printer::channel::output, "A virtual reader listens on " + path +
                                                ". `help` lists the verbs, ^D ends.\n" +
                                                "No agent connected (agents search every 10 s).\n");
  }
  expectations of_clients(reader);
  std::optional<control_page> page;  // exits after the server
  const server listening(reader, path, [&](int socket, const std::function<bool()>& is_over) {
    serve_control(socket, is_over, reader, of_clients, player.callbacks());
  });
  if (chosen.has_ui) {
    page.emplace(path, [&](const std::string& why) { end.set(result::error, why); });
  }
  const auto playing = std::async(std::launch::async, [&] { player.play(); });
  const verdict reason = end.wait(chosen.timeout, [&](int number) {
    if (number == SIGINT && player.is_typed()) return player.cancel_line();
    const bool is_early = has_command || (parts.played && !player.has_played());
    end.set(is_early ? result::interrupted : result::passed, is_early ? strsignal(number) : "");
  });
  if (!parts.played && reason.what == result::command_failed) playing.wait_for(input_grace);
  player.cancel();
  if (playing.wait_for(output_grace) != std::future_status::ready) printed.cancel();
  playing.wait();
  const verdict found = judge(reason, chosen, parts, end, reader, player);
  if (has_command) reader.log.add(0, "verdict " + found.text());
  return found;
}

}  // namespace virtual_reader
