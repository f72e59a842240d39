#include "device.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace virtual_reader {

namespace {

const std::string id_question = "GetQueuedID_index";

bool has_gone(int socket) {
  char next;
  return recv(socket, &next, 1, MSG_PEEK) == 0;
}

}  // namespace

device::device(const std::string& socket_path, bool plugged_in, teller_function teller)
    : serve_teller(std::move(teller)), door(std::make_unique<entrance>(socket_path)) {
  now.plugged = plugged_in;
  acceptor = std::thread([this] { accept_peers(); });
}

void device::end() {
  if (!door) return;
  change([this](reader&) { ending = true; });
  door->interrupt();
  acceptor.join();
  door.reset();
  std::unique_lock<std::mutex> lock(mutex);
  // They may finish what they answer, if the peer takes it: a call that has had its effect has its
  // result.
  const auto are_gone = [this] { return links.empty(); };
  for (const int socket : links) shutdown(socket, SHUT_RD);
  happened.wake();
  changed.wait_for(lock, std::chrono::seconds(1), are_gone);
  for (const int socket : links) shutdown(socket, SHUT_RDWR);
  changed.wait(lock, are_gone);
}

void device::accept_peers() {
  for (;;) {
    const int socket = door->accept();
    const std::lock_guard<std::mutex> lock(mutex);
    if (socket >= 0) {
      links.insert(socket);
      std::thread([this, socket] { serve(socket); }).detach();
    }
    if (ending) return;
  }
}

void device::serve(int socket) {
  std::string why;
  const auto peer = exchange_greetings(socket, agent_greeting, &why);
  const bool is_teller = peer && peer->role == teller_greeting;
  if (peer && peer->version != protocol_version) {
    why = "it speaks protocol version " + std::to_string(peer->version) +
          ", this virtual reader version " + std::to_string(protocol_version);
  }
  const std::string came = why.empty() ? "agent attached" : "agent refused: " + why;
  int agent = 0;
  change([&](reader& r) {
    if (is_teller || ending) return;
    agent = ++last_agent;
    if (why.empty()) r.agents[agent] = std::chrono::steady_clock::now();
    r.happened.add(agent, came);
  });
  if (why.empty() && agent != 0) serve_agent(socket, agent);
  if (why.empty() && is_teller && serve_teller) {
    const auto ends = [this](const reader&) { return ending; };
    serve_teller(socket, [&] { return has_gone(socket) || look(ends); });
  }
  const std::lock_guard<std::mutex> lock(mutex);
  links.erase(socket);
  close(socket);
  changed.notify_all();
}

void device::serve_agent(int socket, int agent) {
  const std::string fault = converse(socket, agent);
  const bool was_cut = has_gone(socket);
  change([&](reader& r) {
    if (!fault.empty() && !was_cut) r.happened.add(agent, "agent refused: " + fault);
    r.release_from(agent);
    r.agents.erase(agent);
    r.happened.add(agent, "agent detached");
  });
}

// Returns what the agent has done wrong, or nothing.
std::string device::converse(int socket, int agent) {
  while (wait_for(socket, POLLIN, never)) {
    std::string why;
    auto given = receive_message(socket, call_size_limit, in(message_limit), &why);
    if (!given) return why;
    auto asked = parse_call(*std::move(given), agent);
    if (!asked) return "it sent no right call";
    if (const auto cut = answer(socket, &*asked)) return *cut;
  }
  return {};
}

// False if the agent went, or the reader ends.
bool device::wait_out(int socket, std::chrono::milliseconds time, std::uint64_t releases) {
  const moment until = in(time);
  std::unique_lock<std::mutex> lock(mutex);
  while (!ending && now.releases == releases && std::chrono::steady_clock::now() < until) {
    if (has_gone(socket)) return false;
    // So soon does it show that an agent was killed.
    changed.wait_until(lock, std::min(until, in(std::chrono::milliseconds(100))));
  }
  return !ending;
}

// Returns nothing, or that the link is to be cut and what the agent has done wrong, if anything.
std::optional<std::string> device::answer(int socket, call* asked) {
  const auto send = [&](const message& told) {
    return send_message(socket, told, in(message_limit));
  };
  const std::string not_taken = "it did not take an answer";
  std::vector<rule> due;
  std::chrono::milliseconds delay{0};
  std::uint64_t releases = 0;
  change([&](reader& r) {
    due = r.faults.take_due(asked->name);
    releases = r.releases;
    for (const rule& each : due) {
      if (each.what != rule::kind::say) r.happened.add(asked->agent, "fault " + to_text(each));
    }
    if (recording) {
      const std::vector<rule> recorded = recording->prepare(*asked, &r);
      due.insert(due.end(), recorded.begin(), recorded.end());
    }
    bool hangs = false;
    for (const rule& each : due) {
      hangs |= each.what == rule::kind::hang;
      delay = std::max(delay, each.time);
    }
    if (delay.count() == 0) return;
    r.happened.add(asked->agent, begun_text(*asked));
    r.waiting.push_back({asked->agent, asked->name, asked->begun, hangs});
  });
  std::optional<std::string> cut;
  for (const rule& each : due) {
    if (each.what != rule::kind::say) continue;
    change([&](reader& r) {
      const std::string text = each.text.substr(0, record::longest);
      r.happened.add(asked->agent, to_text(says_text{text, each.length, each.own_thread}));
    });
    if (!send({{say_message, each.length, each.own_thread}, {each.text}})) cut = not_taken;
  }
  if (delay.count() > 0 && !cut) {
    if (!send({{patience_message, delay.count()}, {}})) {
      cut = not_taken;
    } else if (!wait_out(socket, delay, releases)) {
      cut = "";
    }
  }
  const auto find_due = [&](rule::kind what) {
    return std::find_if(due.begin(), due.end(), [&](const rule& r) { return r.what == what; });
  };
  const bool vanishes = find_due(rule::kind::vanish) != due.end();
  std::optional<std::int64_t> error;
  bool id_questions_wanted = false;
  change([&](reader& r) {
    const auto is_this = [&](const reader::waiting_call& w) { return w.agent == asked->agent; };
    r.waiting.erase(std::remove_if(r.waiting.begin(), r.waiting.end(), is_this), r.waiting.end());
    if (cut) return;
    if (vanishes) r.unplug();
    const auto failure = find_due(rule::kind::fail);
    error = failure != due.end() ? failure->error : r.carry_out(asked);
    r.happened.add(asked->agent, ended_text(*asked, error.has_value()), asked->is_idle);
    id_questions_wanted = r.id_questions_wanted || r.faults.concern(id_question);
  });
  if (cut) return cut;
  if (vanishes) {
    const char half_a_size[2] = {};
    send_bytes(socket, half_a_size, sizeof half_a_size, in(message_limit));
    return "";
  }
  message reply = std::move(asked->result);
  reply.numbers.insert(reply.numbers.begin(),
                       {reply_message, !error, error.value_or(no_error), id_questions_wanted});
  if (!send(reply)) return not_taken;
  return {};
}

}  // namespace virtual_reader
