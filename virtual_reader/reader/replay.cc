#include "replay.h"

#include <algorithm>
#include <cstdio>

namespace virtual_reader {

namespace {

using clock = std::chrono::steady_clock;

// How much longer than recorded an application may need.
constexpr std::chrono::seconds patience{2};
// Calls that took less are not slow.
constexpr std::chrono::milliseconds least_delay{10};

std::string text_of(const recorded_call& each) {
  call text;
  text.name = each.name;
  text.arguments = each.arguments;
  char time[32];
  std::snprintf(time, sizeof time, " at %.6f", static_cast<double>(each.ended.count()) / 1e6);
  return to_text(text).substr(5) + time;
}

// What an application gets a line for: not a card that is still there.
bool is_event(const recorded_call& poll, const recorded_call* before) {
  const bool is_still_there = poll.card && before && before->card && *poll.card == *before->card;
  return !poll.is_idle() && !is_still_there;
}

}  // namespace

replay::replay(std::vector<recorded_call> recorded) : calls(std::move(recorded)) {
  for (std::size_t i = 0; i < calls.size(); ++i) {
    left[calls[i].name].push_back(i);
    // The agent's last call is made at its end; nothing waits for it.
    const bool is_last =
        calls[i].name == "SetMarkerFunction" && calls[i].arguments == std::vector<std::int64_t>{0};
    if (!calls[i].is_poll() && !is_last) left_but_polls.insert(i);
  }
}

void replay::drop(std::size_t index) {
  std::deque<std::size_t>& same = left[calls[index].name];
  same.erase(std::remove(same.begin(), same.end(), index), same.end());
  left_but_polls.erase(index);
}

// Said once for each time that the two part.
void replay::part(int agent, reader* playing, const std::string& how) {
  if (in_step) playing->log.add(agent, "replay diverged: " + how);
  in_step = false;
  has_diverged = true;
}

// Whether calls that were recorded before that one are missing so far.
bool replay::must_wait(std::size_t index, int agent, reader* playing) {
  const auto now = clock::now();
  if (waiting_since == clock::time_point{}) waiting_since = now;
  while (!left_but_polls.empty() && *left_but_polls.begin() < index) {
    const recorded_call& missing = calls[*left_but_polls.begin()];
    const auto ended = calls[std::min(index, calls.size() - 1)].ended;
    if (now - waiting_since < patience + (ended - missing.ended)) return true;
    part(agent, playing, "there was " + text_of(missing));
    drop(*left_but_polls.begin());
  }
  waiting_since = {};
  return false;
}

// For a call of which the recording has no more.
void replay::go_on(int agent, const call& asked, reader* playing) {
  const bool is_poll = asked.name == "GetQueuedID";
  if (is_poll) playing->hold({});
  if (!is_poll && !left_but_polls.empty()) {
    part(agent, playing, "there was " + text_of(calls[*left_but_polls.begin()]));
  } else if (!is_poll && !left["GetQueuedID"].empty()) {
    part(agent, playing, "there was no more " + asked.name);
  } else if (!has_ended && !(is_poll && must_wait(calls.size(), agent, playing))) {
    has_ended = true;
    playing->log.add(agent, "replay ended");
  }
}

std::vector<fault> replay::prepare(int agent, const call& asked, reader* playing) {
  if (asked.name == "GetQueuedID_index") return {};
  const std::deque<std::size_t>& same = left[asked.name];
  if (same.empty()) {
    go_on(agent, asked, playing);
    return {};
  }
  const std::size_t index = same.front();
  const recorded_call& recorded = calls[index];
  if (recorded.is_poll()) {
    if (is_event(recorded, last_poll) && must_wait(index, agent, playing)) {
      playing->hold({});
      return {};
    }
    last_poll = &recorded;
    playing->hold(recorded.card);
  } else if (!left_but_polls.empty() && *left_but_polls.begin() < index) {
    part(agent, playing, "there was " + text_of(calls[*left_but_polls.begin()]));
  } else if (asked.arguments != recorded.arguments) {
    part(agent, playing, "there was " + text_of(recorded));
  } else {
    in_step = true;
  }
  drop(index);
  if (recorded.name == "usbConnect" && recorded.has_ended) {
    recorded.has_failed() ? playing->unplug() : playing->plug();
    playing->part_number = recorded.part;
  }
  for (const auto& [place, fields] : recorded.records) {
    std::copy(fields.begin(), fields.end(), &playing->stored[place]);
  }
  std::vector<fault> due;
  const auto add = [&](fault::kind what) -> fault& {
    due.push_back({what, asked.name});
    return due.back();
  };
  for (const says& said : recorded.said) {
    fault& made = add(fault::kind::say);
    made.text = said.text;
    made.length = said.length;
    made.own_thread = said.own_thread;
  }
  if (recorded.took && *recorded.took >= least_delay) {
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(*recorded.took);
    add(fault::kind::delay).time = std::min(time, fault::longest);
  }
  if (!recorded.has_ended) add(fault::kind::hang).time = fault::longest;
  if (recorded.has_failed()) add(fault::kind::fail).error = recorded.error;
  return due;
}

}  // namespace virtual_reader
