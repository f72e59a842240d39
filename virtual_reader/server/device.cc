#include "device.h"

#include <algorithm>
#include <utility>

#include "wire.h"

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
  state.agents.emplace(last_agent, reader::agent_state());
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

void device::wake() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    changed.notify_all();
  }
  log.wake();
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
    changed.wait_until(lock, until);
  }
  return !is_cancelled;
}

std::optional<std::string> device::answer(const connection& to, int agent, call asked) {
  const std::string not_taken = "it did not take an answer";
  const auto begin = std::chrono::steady_clock::now();
  asked.has_ended = false;
  std::vector<fault> due;
  std::chrono::milliseconds delay{0};
  std::uint64_t releases = 0;
  modify([&](reader& r) {
    due = r.faults.take_due(asked.name);
    releases = r.releases;
    for (const fault& each : due) {
      if (each.what != fault::kind::say) log.add(agent, "fault " + to_text(each));
    }
    if (playing) {
      const std::vector<fault> recorded = playing->prepare(agent, asked, &r);
      due.insert(due.end(), recorded.begin(), recorded.end());
    }
    bool hangs = false;
    for (const fault& each : due) {
      hangs |= each.what == fault::kind::hang;
      delay = std::max(delay, each.time);
    }
    if (delay.count() == 0) return;
    log.add(agent, to_text(asked));
    r.waiting.push_back({agent, asked.name, begin, hangs});
  });
  std::optional<std::string> cut;
  for (const fault& each : due) {
    if (each.what != fault::kind::say) continue;
    const std::string line = to_text(says{each.text, each.length, each.own_thread});
    log.add(agent, line);
    if (!to.send(line)) cut = not_taken;
  }
  if (delay.count() > 0 && !cut) {
    if (!to.send("delayed " + std::to_string(delay.count()))) {
      cut = not_taken;
    } else if (!wait_out(to, delay, releases)) {
      cut = "";
    }
  }
  const auto find_due = [&](fault::kind what) {
    return std::find_if(due.begin(), due.end(), [&](const fault& f) { return f.what == what; });
  };
  const bool vanishes = find_due(fault::kind::vanish) != due.end();
  asked.has_ended = true;
  modify([&](reader& r) {
    const auto is_this = [&](const reader::waiting_call& w) { return w.agent == agent; };
    r.waiting.erase(std::remove_if(r.waiting.begin(), r.waiting.end(), is_this), r.waiting.end());
    if (cut) return;
    if (vanishes) r.unplug();
    // An agent that was killed does not hold the reader, even if its end was not noticed so far.
    const auto holder = connections.find(r.holder);
    if (holder != connections.end() && holder->second.is_closed()) r.release_from(r.holder);
    const auto failure = find_due(fault::kind::fail);
    const bool is_idle =
        r.run(agent, &asked,
              failure != due.end() ? std::optional<std::int64_t>(failure->error) : std::nullopt);
    call logged = asked;
    const auto took = std::chrono::steady_clock::now() - begin;
    if (took >= std::chrono::milliseconds(10)) {
      logged.took = std::chrono::duration_cast<std::chrono::microseconds>(took);
    }
    log.add(agent, to_text(logged), is_idle);
    // The library then answers for the ID itself, so that polls are cheap.
    if (asked.name != "GetQueuedID" || r.id_questions_wanted || r.faults.concern(id_question))
      return;
    const auto& id = r.agents[agent].id;
    asked.values.insert(asked.values.end(), id.begin(), id.end());
  });
  if (cut) return cut;
  if (vanishes) return "";
  if (!to.send(to_text(asked))) return not_taken;
  return {};
}

}  // namespace virtual_reader
