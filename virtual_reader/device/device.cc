#include "device.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "words.h"

namespace virtual_reader {

namespace {

constexpr std::size_t longest_log = 100'000;
constexpr std::size_t most_numbers = 3 + 8 + 40;  // of a call: its head, one record, all records
const std::string id_question = "GetQueuedID_index";

std::optional<call> receive_call(int socket) {
  const auto given = receive_message(socket, call_size_limit, in(message_limit));
  if (!given || given->texts.size() != 1 || !is_call(given->texts[0])) return {};
  const std::vector<std::int64_t>& all = given->numbers;
  const bool is_right = all.size() >= 3 && all.size() <= most_numbers && all[2] >= 0 &&
                        static_cast<std::size_t>(all[2]) <= all.size() - 3;
  if (!is_right) return {};
  const auto extras = all.begin() + 3 + all[2];
  return call{socket, given->texts[0],           all[0],
              all[1], {all.begin() + 3, extras}, {extras, all.end()}};
}

bool has_gone(int socket) {
  char next;
  return recv(socket, &next, 1, MSG_PEEK) == 0;
}

std::string to_text(const std::vector<std::int64_t>& all) {
  std::string text;
  for (const std::int64_t number : all) text += " " + std::to_string(number);
  return text;
}

// For the log.
std::string to_text(const call& done, bool failed) {
  std::string line = done.name + to_text(done.arguments);
  if (done.kind != no_result) line += " ->";
  if (done.kind == status_result) line += failed ? " 0" : " 1";
  if (done.kind == text_result) {
    line += " " + (done.result.texts.empty() ? "null" : quoted(done.result.texts[0]));
  }
  const bool has_record = done.extras.size() == 8 && !failed;
  return has_record || done.kind == number_result ? line + to_text(done.extras) : line;
}

}  // namespace

device::device(const std::string& socket_path, event_function on_event_line, bool plugged_in)
    : on_event(std::move(on_event_line)), door(std::make_unique<entrance>(socket_path)) {
  now.plugged = plugged_in;
  acceptor = std::thread([this] { accept_agents(); });
}

void device::end() {
  if (!door) return;
  change([this](state&) { ending = true; });
  door->interrupt();
  acceptor.join();
  door.reset();
  std::unique_lock<std::mutex> lock(mutex);
  // They may finish what they answer: a call that has had its effect has its result.
  for (const int socket : links) shutdown(socket, SHUT_RD);
  changed.wait(lock, [this] { return links.empty(); });
}

device::state device::look() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return now;
}

void device::change(const std::function<void(state&)>& make_change) {
  const std::lock_guard<std::mutex> lock(mutex);
  make_change(now);
  complete_change();
}

// Lets the world know what was done. The caller holds the lock.
void device::complete_change() {
  if (on_event) std::for_each(now.events.begin(), now.events.end(), on_event);
  now.events.clear();
  changed.notify_all();
}

bool device::wait(std::chrono::milliseconds limit, const std::function<bool(state&)>& holds) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_until(lock, in(limit), [&] { return holds(now); });
}

std::vector<std::string> device::calls() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return {log.begin(), log.end()};
}

void device::accept_agents() {
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
  const std::string fault = converse(socket);
  const bool was_cut = has_gone(socket);
  change([&](state& s) {
    if (!fault.empty() && !was_cut) s.events.push_back(fault);
    s.release_from(socket);
  });
  const std::lock_guard<std::mutex> lock(mutex);
  links.erase(socket);
  close(socket);
  changed.notify_all();
}

// Returns what the agent has done wrong, or nothing.
std::string device::converse(int socket) {
  const auto version = exchange_greetings(socket);
  if (!version) return "refused an agent: it did not greet";
  if (version != protocol_version) {
    return "refused an agent: it speaks protocol version " + std::to_string(*version) +
           ", this virtual reader version " + std::to_string(protocol_version);
  }
  while (wait_for(socket, POLLIN, never)) {
    std::optional<call> asked = receive_call(socket);
    if (!asked) return "dropped an agent: it sent no right call";
    if (!answer(&*asked)) break;
  }
  return {};
}

// Returns false when the link is to be cut.
bool device::answer(call* asked) {
  const auto send = [&](const message& told) {
    return send_message(asked->socket, told, in(message_limit));
  };
  std::unique_lock<std::mutex> lock(mutex);
  const std::vector<rule> due = now.take_due(asked->name);
  const auto find_due = [&](rule::kind what) {
    return std::find_if(due.begin(), due.end(), [&](const rule& r) { return r.what == what; });
  };
  const bool is_delayed = find_due(rule::kind::delay) != due.end();
  const std::uint64_t releases = now.releases;
  if (is_delayed) ++now.counts[asked->name];
  complete_change();
  lock.unlock();
  for (const rule& each : due) {
    if (each.what == rule::kind::say) {
      if (!send({{say_message, each.length, each.own_thread}, {each.text}})) return false;
    } else if (each.what == rule::kind::delay) {
      if (!send({{patience_message, each.time.count()}, {}})) return false;
      const auto is_over = [&](state& s) { return ending || s.releases != releases; };
      std::chrono::milliseconds step{100};  // within which it shows that the agent was killed
      for (auto left = each.time; left.count() > 0 && !wait(step = std::min(left, step), is_over);
           left -= step) {
        if (has_gone(asked->socket)) return false;
      }
    }
  }

  lock.lock();
  if (is_delayed && ending) return false;
  const bool vanishes = find_due(rule::kind::vanish) != due.end();
  if (vanishes) now.power(false, "unplugged in the middle of " + asked->name);
  const auto failure = find_due(rule::kind::fail);
  const auto error = failure != due.end() ? failure->error : now.carry_out(asked);
  log.push_back(to_text(*asked, error.has_value()));
  if (log.size() > longest_log) log.pop_front();
  if (!is_delayed) ++now.counts[asked->name];
  const bool is_poll = asked->name == "GetQueuedID" || asked->name == id_question;
  const bool is_idle = is_poll && !error && !now.card_found;
  if (now.traced == tracing::on || (now.traced == tracing::quiet && !is_idle)) {
    now.events.insert(now.events.begin(), "call " + log.back());
  }
  const bool id_questions_wanted =
      now.traced != tracing::off ||
      std::any_of(now.faults.begin(), now.faults.end(),
                  [](const rule& each) { return each.call == id_question; });
  complete_change();
  lock.unlock();

  if (vanishes) {
    const char half_a_size[2] = {};
    send_bytes(asked->socket, half_a_size, sizeof half_a_size, in(message_limit));
    return false;
  }
  message reply = std::move(asked->result);
  reply.numbers.insert(reply.numbers.begin(),
                       {reply_message, !error, error.value_or(no_error), id_questions_wanted});
  return send(reply);
}

}  // namespace virtual_reader
