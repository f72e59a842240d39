#include "device.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include "words.h"

namespace virtual_reader {

namespace {

constexpr std::size_t longest_log = 100'000;
enum error_number : std::int64_t { no_reader = 1, not_read = 2, held_by_other = 3 };

std::string joined(const std::int64_t* numbers, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += " " + std::to_string(numbers[i]);
  return text;
}

record record_from(const std::int64_t* numbers) {
  record made;
  for (std::size_t i = 0; i < made.size(); ++i) made[i] = static_cast<std::int16_t>(numbers[i]);
  return made;
}

}  // namespace

std::string led_text(const record& led) {
  if (led[0] == 0) return "own";
  if (led[1] != 0) return led[2] != 0 ? "amber" : "red";
  return led[2] != 0 ? "green" : "off";
}

device::device(std::string socket_path, event_function on_event_line, bool plugged_in)
    : on_event(std::move(on_event_line)) {
  now.led = now.stored[led_record];
  now.plugged = plugged_in;
  listening =
      std::make_unique<server>(std::move(socket_path), [this](int socket) { serve(socket); });
}

device::~device() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ending = waits_ended = true;
  }
  changed.notify_all();
  listening.reset();
}

void device::tell(const std::vector<std::string>& events) const {
  if (!on_event) return;
  for (const std::string& line : events) on_event(line);
}

// The caller holds the lock.
void device::power(bool on) {
  now.plugged = on;
  now.holder = -1;
  now.led = now.stored[led_record];
}

void device::plug() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (now.plugged) return;
    power(true);
  }
  tell({"plugged in"});
}

void device::unplug() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!now.plugged) return;
    power(false);
  }
  tell({"unplugged"});
}

void device::set_part_number(std::optional<std::string> text) {
  const std::lock_guard<std::mutex> lock(mutex);
  now.part_number = std::move(text);
}

void device::queue_cards(const std::vector<card_id>& ids) {
  const std::lock_guard<std::mutex> lock(mutex);
  now.queue.insert(now.queue.end(), ids.begin(), ids.end());
}

void device::hold_card(std::optional<card_id> id) {
  const std::lock_guard<std::mutex> lock(mutex);
  now.held = id;
}

void device::add_rule(rule added) {
  const std::lock_guard<std::mutex> lock(mutex);
  rules.add(std::move(added));
}

void device::clear_rules() {
  const std::lock_guard<std::mutex> lock(mutex);
  rules.clear();
}

void device::release() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ++releases;
  }
  changed.notify_all();
}

void device::trace(tracing mode) {
  const std::lock_guard<std::mutex> lock(mutex);
  now.traced = mode;
}

std::vector<std::string> device::calls() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return {log.begin(), log.end()};
}

std::uint64_t device::call_count(const std::string& name) const {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto found = counts.find(name);
  return found == counts.end() ? 0 : found->second;
}

device::state device::look() const {
  const std::lock_guard<std::mutex> lock(mutex);
  state copy = now;
  copy.rules = rules.size();
  return copy;
}

template <typename T>
bool device::wait_until(std::chrono::milliseconds limit, T condition) {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_until(lock, in(limit), [&] { return waits_ended || condition(); });
  return condition();
}

bool device::wait_for_call(const std::string& name, std::uint64_t count,
                           std::chrono::milliseconds limit) {
  return wait_until(limit, [&] { return counts[name] >= count; });
}

bool device::wait_for_cards(std::chrono::milliseconds limit) {
  return wait_until(limit, [&] { return now.queue.empty(); });
}

void device::wait(std::chrono::milliseconds time) {
  wait_until(time, [] { return false; });
}

void device::end_waits() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    waits_ended = true;
  }
  changed.notify_all();
}

void device::serve(int socket) {
  const auto version = exchange_greetings(socket);
  if (version != protocol_version) {
    tell({version ? "refused an agent: it speaks protocol version " + std::to_string(*version) +
                        ", this virtual reader version " + std::to_string(protocol_version)
                  : "refused an agent: it did not greet"});
    return;
  }
  char first;
  while (wait_for(socket, POLLIN, never) && recv(socket, &first, 1, MSG_PEEK) == 1) {
    const auto question = receive_message(socket, call_size_limit, in(message_limit));
    if (!question) tell({"dropped an agent: it sent no whole message"});
    if (!question || !answer(socket, *question)) break;
  }
  bool held = false;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    held = now.holder == socket;
    if (held) now.holder = -1;
  }
  if (held) tell({"disconnected"});
}

// Returns false when the link is to be cut.
bool device::answer(int socket, const message& question) {
  const call_kind* const kind = question.texts.size() == 1 ? find_call(question.texts[0]) : nullptr;
  if (!kind || question.numbers.size() != 1 + kind->arguments + kind->extras ||
      question.numbers[0] != static_cast<std::int64_t>(kind->arguments)) {
    tell({"dropped an agent: it sent no right call"});
    return false;
  }
  const std::int64_t* const numbers = question.numbers.data() + 1;

  std::unique_lock<std::mutex> lock(mutex);
  const verdict verdict = rules.judge(kind->name);
  const bool waits = verdict.hang || verdict.delay.count() > 0;
  const std::uint64_t release_before = releases;
  if (waits) ++counts[kind->name];
  lock.unlock();
  if (waits) changed.notify_all();
  if (waits && !send_message(socket, {{patience, verdict.hang ? -1 : verdict.delay.count()}, {}},
                             in(message_limit))) {
    return false;
  }
  for (const rule& r : verdict.says) {
    if (!send_message(socket, {{say, r.length, r.own_thread}, {r.text}}, in(message_limit))) {
      return false;
    }
  }
  lock.lock();
  if (verdict.hang) changed.wait(lock, [&] { return ending || releases != release_before; });
  changed.wait_until(lock, in(verdict.delay), [&] { return ending; });

  outcome done;
  if (verdict.vanish) {
    power(false);
    done.events = {"unplugged in the middle of " + question.texts[0]};
  } else if (verdict.fail) {
    done.error = verdict.error;
  } else {
    const bool is_connection = question.texts[0] == "usbConnect";
    const bool needs_reader = kind->result == yields::status || kind->result == yields::text;
    if (needs_reader && !is_connection && now.holder != socket) {
      done.error = no_reader;
    } else if (kind->result == yields::status && kind->extras > 0 &&
               question.texts[0] != "SetLEDCtrl" && numbers[kind->arguments] == 0) {
      done.error = not_read;
    } else {
      done = carry_out(socket, question.texts[0], numbers);
    }
  }
  note(*kind, numbers, &done);
  if (!waits) ++counts[kind->name];
  const bool asks_for_card = !done.values.empty() || question.texts[0] == "GetQueuedID_index";
  const bool wants_index = rules.names("GetQueuedID_index") || now.traced == tracing::on ||
                           (now.traced == tracing::quiet && asks_for_card);
  lock.unlock();
  tell(done.events);
  changed.notify_all();

  if (verdict.vanish) {
    const char half_a_size[2] = {};
    send_bytes(socket, half_a_size, sizeof half_a_size, in(message_limit));
    return false;
  }
  message given{{reply, done.result, done.error, wants_index}, {}};
  given.numbers.insert(given.numbers.end(), done.values.begin(), done.values.end());
  if (done.text) given.texts.push_back(*done.text);
  return send_message(socket, given, in(message_limit));
}

// What a call does that nothing stands in the way of. The caller holds the lock.
device::outcome device::carry_out(int socket, const std::string& name,
                                  const std::int64_t* numbers) {
  outcome done;
  done.result = 1;
  if (name == "usbConnect") {
    if (!now.plugged || (now.holder >= 0 && now.holder != socket)) {
      return {0, now.plugged ? held_by_other : no_reader, {}, {}, {}};
    }
    now.holder = socket;
    part_number_of_connection = now.part_number;
    done.events = {"connected"};
  } else if (name == "USBDisconnect") {
    if (now.holder == socket) {
      now.holder = -1;
      done.events = {"disconnected"};
    }
  } else if (name == "getPartNumberString") {
    done.text = part_number_of_connection;
  } else if (name == "GetDevName") {
    done.text = "virtual reader";
  } else if (name == "GetQueuedID") {
    std::optional<card_id> id = now.held;
    if (!now.queue.empty()) {
      id = now.queue.front();
      now.queue.pop_front();
    }
    if (id) {
      done.values.assign(id->values.begin(), id->values.end());
      done.values.push_back(id->bits);
      done.events = {"card " + to_text(*id)};
    }
  } else if (name == "BeepNow") {
    const auto count = static_cast<std::uint64_t>(numbers[0]);
    (numbers[1] != 0 ? now.long_beeps : now.short_beeps) += count;
    done.events = {std::string("beep ") + (numbers[1] != 0 ? "long " : "short ") +
                   std::to_string(count)};
  } else if (name == "SetLEDCtrl") {
    now.led = record_from(numbers);
    done.events = {"led " + led_text(now.led)};
  } else if (name == "ReadCfg") {
    for (const record& fields : now.stored) {
      done.values.insert(done.values.end(), fields.begin(), fields.end());
    }
  } else if (name == "WriteCfg") {
    for (std::size_t i = 0; i < now.stored.size(); ++i) {
      now.stored[i] = record_from(numbers + 1 + 8 * i);
    }
    done.events = {"config written"};
  } else if (name == "ResetFactoryDflts") {
    now.stored = factory_defaults();
    now.led = now.stored[led_record];
    done.events = {"config reset", "led " + led_text(now.led)};
  }
  return done;
}

// Logs a call with its result. The caller holds the lock.
void device::note(const call_kind& kind, const std::int64_t* numbers, outcome* done) {
  const std::string name = kind.name;
  std::string line = name + joined(numbers, kind.arguments);
  const std::int64_t* const extras = numbers + kind.arguments;
  switch (kind.result) {
    case yields::nothing:
      break;
    case yields::status:
      line += " -> " + std::to_string(done->result);
      if (done->result != 0 && kind.arguments == 0 && kind.extras == 9)
        line += joined(extras + 1, 8);
      break;
    case yields::number:
      line += " -> " + std::to_string(extras[0]);
      break;
    case yields::text:
      line += " -> " + (done->text ? quoted(*done->text) : "null");
      break;
  }
  const bool idle_poll = name == "GetQueuedID" && done->result != 0 && done->values.empty();
  if (now.traced == tracing::on || (now.traced == tracing::quiet && !idle_poll)) {
    done->events.insert(done->events.begin(), "call " + line);
  }
  log.push_back(std::move(line));
  if (log.size() > longest_log) log.pop_front();
}

}  // namespace virtual_reader
