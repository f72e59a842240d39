// The work loop. It stands above the work items, since it creates the scans, and apart from the
// queue below them, into which they put work.
#include <utility>

#include "card_reader_state.h"
#include "globals.h"
#include "log_relay.h"
#include "reader_cycle.h"

namespace {

// Runs an item if it is meant for the attached reader, and tells the host how it went.
void run(action& item, const std::string& reader_name) {
  std::string line;
  if (item.reader == global_reader || item.reader == reader_name) {
    action_result result = item.execute_impl();
    line = result.ok ? "Ok:" : "Error:";
    if (!result.message.empty()) {
      line += ' ';
      line += result.message;
    }
  } else {
    line = "Error: Action was for reader " + item.reader;
    if (reader_name == global_reader) {
      line += ", but there is no reader attached";
    } else {
      line += ", but the current reader is " + reader_name;
    }
  }
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
    while (actions.empty() && std::chrono::steady_clock::now() < deadline) {
      cond.wait_until(lock, deadline);
    }
    if (!actions.empty()) continue;
    if (searching) {
      actions.push(std::make_unique<scan_for_reader>());
    } else {
      actions.push(std::make_unique<scan_for_card>(reader_name));
    }
  }
  lock.unlock();

  api.SetMarkerFunction(nullptr);
}
