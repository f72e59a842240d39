// The work loop. It stands above the work items, since it creates the scans, and apart from the
// queue below them, into which they put work.
#include <utility>

#include "card_reader_state.h"
#include "globals.h"
#include "log_relay.h"
#include "reader_cycle.h"

namespace {

std::string line_of(const action_result& result) {
  std::string line(result.ok ? std::string_view("Ok:") : "Error:");
  if (!result.message.empty()) {
    line += ' ';
    line += result.message;
  }
  return line;
}

std::string line_for_other_reader(const std::string& wanted, const std::string& attached) {
  std::string line = "Error: Action was for reader " + wanted;
  if (attached == global_reader) {
    line += ", but there is no reader attached";
  } else {
    line += ", but the current reader is " + attached;
  }
  return line;
}

// Runs an item if it is meant for the attached reader, and reports its result.
void run(action& item, const std::string& reader_name) {
  const bool is_meant = item.reader == global_reader || item.reader == reader_name;
  std::string line =
      is_meant ? line_of(item.execute_impl()) : line_for_other_reader(item.reader, reader_name);
  if (!item.silent) globals::out_state().push_line(std::move(line));
}

}  // namespace

void card_reader_state::loop() {
  const pc_prox::pc_prox_api& api = globals::api();
  api.SetMarkerFunction(log_relay);

  std::queue<action_ptr> taken;
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    if (!actions.empty()) {
      taken.swap(actions);
      lock.unlock();
      for (; !taken.empty(); taken.pop()) run(*taken.front(), reader_name);
      lock.lock();
      continue;
    }
    if (stop) break;

    const bool searching = reader_name == global_reader;
    const time_point deadline = last_scan + (searching ? reader_scan_interval : card_scan_interval);
    while (!stop && actions.empty() && std::chrono::steady_clock::now() < deadline) {
      cond.wait_until(lock, deadline);
    }
    if (stop || !actions.empty()) continue;
    if (searching) {
      actions.push(std::make_unique<scan_for_reader>());
    } else {
      actions.push(std::make_unique<scan_for_card>(reader_name));
    }
  }
  lock.unlock();

  api.SetMarkerFunction(nullptr);
}
