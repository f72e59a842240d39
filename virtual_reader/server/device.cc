#include "device.h"

#include <algorithm>
#include <utility>

namespace virtual_reader {

namespace {

const std::string id_question = "GetQueuedID_index";

}  // namespace

device::device(bool is_plugged, std::vector<recorded_call> recording) {
  state.plugged = is_plugged;
  if (!recording.empty()) playing.emplace(std::move(recording));
}

int device::attach(const connection& to) {
  const std::lock_guard<std::mutex> lock(mutex);
  connections.emplace(++last_agent, to);
  ++attached;
  state.agents[last_agent] = std::chrono::steady_clock::now();
  log.add(last_agent, "agent attached");
  return last_agent;
}

void device::detach(int agent, const std::string& misbehaved) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!misbehaved.empty()) log.add(agent, "agent refused: " + misbehaved);
  state.release_from(agent);
  state.agents.erase(agent);
  connections.erase(agent);
  log.add(agent, "agent detached");
}

void device::refuse(const std::string& why) {
  const std::lock_guard<std::mutex> lock(mutex);
  log.add(++last_agent, "agent refused: " + why);
}

void device::cancel() {
  const std::lock_guard<std::mutex> lock(mutex);
  is_cancelled = true;
  changed.notify_all();
}

// False if the agent disconnected, or all calls are cancelled.
bool device::wait_out(const connection& to, std::chrono::milliseconds time,
                      std::uint64_t releases) {
  const moment until = in(time);
  std::unique_lock<std::mutex> lock(mutex);
  while (!is_cancelled && state.releases == releases && std::chrono::steady_clock::now() < until) {
    if (to.is_closed()) return false;
    // So soon does it show that an agent was killed.
    changed.wait_until(lock, std::min(until, in(std::chrono::milliseconds(100))));
  }
  return !is_cancelled;
}

std::optional<std::string> device::answer(const connection& to, call* asked) {
  const std::string not_taken = "it did not take an answer";
  std::vector<fault> due;
  std::chrono::milliseconds delay{0};
  std::uint64_t releases = 0;
  modify([&](reader& r) {
    due = r.faults.take_due(asked->name);
    releases = r.releases;
    for (const fault& each : due) {
      if (each.what != fault::kind::say) r.log.add(asked->agent, "fault " + to_text(each));
    }
    if (playing) {
      const std::vector<fault> recorded = playing->prepare(*asked, &r);
      due.insert(due.end(), recorded.begin(), recorded.end());
    }
    bool hangs = false;
    for (const fault& each : due) {
      hangs |= each.what == fault::kind::hang;
      delay = std::max(delay, each.time);
    }
    if (delay.count() == 0) return;
    r.log.add(asked->agent, begun_text(*asked));
    r.waiting.push_back({asked->agent, asked->name, asked->begun, hangs});
  });
  std::optional<std::string> cut;
  for (const fault& each : due) {
    if (each.what != fault::kind::say) continue;
    modify([&](reader& r) {
      const std::string text = each.text.substr(0, longest_event);
      r.log.add(asked->agent, to_text(says_text{text, each.length, each.own_thread}));
    });
    if (!to.send({{say_message, each.length, each.own_thread}, {each.text}})) cut = not_taken;
  }
  if (delay.count() > 0 && !cut) {
    if (!to.send({{patience_message, delay.count()}, {}})) {
      cut = not_taken;
    } else if (!wait_out(to, delay, releases)) {
      cut = "";
    }
  }
  const auto find_due = [&](fault::kind what) {
    return std::find_if(due.begin(), due.end(), [&](const fault& r) { return r.what == what; });
  };
  const bool vanishes = find_due(fault::kind::vanish) != due.end();
  std::optional<std::int64_t> error;
  bool id_questions_wanted = false;
  modify([&](reader& r) {
    const auto is_this = [&](const reader::waiting_call& w) { return w.agent == asked->agent; };
    r.waiting.erase(std::remove_if(r.waiting.begin(), r.waiting.end(), is_this), r.waiting.end());
    if (cut) return;
    if (vanishes) r.unplug();
    // An agent that was killed does not hold the reader, even if its end was not noticed so far.
    const auto holder = connections.find(r.holder);
    if (holder != connections.end() && holder->second.is_closed()) r.release_from(r.holder);
    const auto failure = find_due(fault::kind::fail);
    error = failure != due.end() ? failure->error : r.run(asked);
    r.log.add(asked->agent, ended_text(*asked, error.has_value()), asked->is_idle);
    id_questions_wanted = r.id_questions_wanted || r.faults.concern(id_question);
  });
  if (cut) return cut;
  if (vanishes) return "";
  message reply = std::move(asked->result);
  reply.numbers.insert(reply.numbers.begin(),
                       {reply_message, !error, error.value_or(no_error), id_questions_wanted});
  if (!to.send(reply)) return not_taken;
  return {};
}

}  // namespace virtual_reader
