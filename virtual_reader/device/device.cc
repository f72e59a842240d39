#include "device.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "words.h"

namespace virtual_reader {

const std::string call_names =
    "SetMarkerFunction BeepNow GetLastLibErr SetLEDCtrl GetLEDCtrl GetQueuedID GetQueuedID_index "
    "USBDisconnect SetDevTypeSrch usbConnect getPartNumberString GetDevName ReadCfg WriteCfg "
    "GetIDBitCnts SetIDBitCnts GetFlags SetFlags GetTimeParms SetTimeParms GetFlags2 SetFlags2 "
    "ResetFactoryDflts";

namespace {

using numbers = std::vector<std::int64_t>;

constexpr std::size_t longest_log = 100'000;

std::string to_text(const numbers& all) {
  std::string text;
  for (const std::int64_t number : all) text += " " + std::to_string(number);
  return text;
}

record record_at(const numbers& all, std::size_t place) {
  record made{};
  for (std::size_t i = 0; i < made.size() && place + i < all.size(); ++i) {
    made[i] = static_cast<std::int16_t>(all[place + i]);
  }
  return made;
}

}  // namespace

bool is_call(const std::string& name) {
  return name.find(' ') == std::string::npos &&
         (" " + call_names + " ").find(" " + name + " ") != std::string::npos;
}

struct device::question {
  int socket;
  std::string name;
  std::int64_t kind, own_error;
  numbers arguments, extras;
};

struct device::outcome {
  bool failed = false;
  std::int64_t error = no_error;
  numbers values;
  std::optional<std::string> text;
  std::vector<std::string> events;
};

device::device(const std::string& socket_path, event_function on_event_line, bool plugged_in)
    : on_event(std::move(on_event_line)) {
  now.plugged = plugged_in;
  listening = std::make_unique<server>(socket_path, [this](int socket) { serve(socket); });
}

device::~device() { end(); }

void device::end() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ending = true;
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

void device::plug() { set_power(true); }

void device::unplug() { set_power(false); }

void device::set_power(bool on) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (now.plugged == on) return;
    power(on);
  }
  tell({on ? "plugged in" : "unplugged"});
}

void device::release() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ++releases;
  }
  changed.notify_all();
}

void device::add_rule(rule added) {
  const std::lock_guard<std::mutex> lock(mutex);
  rules.push_back(std::move(added));
}

void device::clear_rules() {
  const std::lock_guard<std::mutex> lock(mutex);
  rules.clear();
}

device::state device::look() const {
  const std::lock_guard<std::mutex> lock(mutex);
  state copy = now;
  copy.rules = rules.size();
  return copy;
}

void device::change(const std::function<void(state&)>& make_change) {
  const std::lock_guard<std::mutex> lock(mutex);
  make_change(now);
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

bool device::wait_for_call(const std::string& name, std::uint64_t count,
                           std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_until(lock, in(limit), [&] { return counts[name] >= count; });
}

bool device::wait_for_cards(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_until(lock, in(limit), [&] { return now.queue.empty(); });
}

void device::serve(int socket) {
  char first;
  const auto version = exchange_greetings(socket);
  if (!version && recv(socket, &first, 1, MSG_PEEK) == 0) return;  // only looked who is there
  if (version != protocol_version) {
    tell({version ? "refused an agent: it speaks protocol version " + std::to_string(*version) +
                        ", this virtual reader version " + std::to_string(protocol_version)
                  : "refused an agent: it did not greet"});
    return;
  }
  bool right = true;
  while (right && wait_for(socket, POLLIN, never) && recv(socket, &first, 1, MSG_PEEK) == 1) {
    const auto given = receive_message(socket, call_size_limit, in(message_limit));
    right = given && given->texts.size() == 1 && is_call(given->texts[0]) &&
            given->numbers.size() >= 3 && given->numbers[2] >= 0 && given->numbers[2] <= 8 &&
            given->numbers.size() >= 3 + static_cast<std::size_t>(given->numbers[2]);
    if (right) {
      const auto extras = given->numbers.begin() + 3 + given->numbers[2];
      if (!answer({socket,
                   given->texts[0],
                   given->numbers[0],
                   given->numbers[1],
                   {given->numbers.begin() + 3, extras},
                   {extras, given->numbers.end()}})) {
        break;
      }
    } else {
      tell({"dropped an agent: it sent no right call"});
    }
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
bool device::answer(const question& asked) {
  const auto send = [&](const message& given) {
    return send_message(asked.socket, given, in(message_limit));
  };
  std::unique_lock<std::mutex> lock(mutex);
  const verdict rule = judge(&rules, asked.name);
  const bool waits = rule.hang || rule.delay.count() > 0;
  const std::uint64_t releases_before = releases;
  if (waits) ++counts[asked.name];
  lock.unlock();
  if (waits) {
    changed.notify_all();
    if (!send({{patience_message, rule.hang ? -1 : rule.delay.count()}, {}})) return false;
  }
  for (const auto& text : rule.says) {
    if (!send({{say_message, text.length, text.own_thread}, {text.text}})) return false;
  }
  lock.lock();
  if (rule.hang) changed.wait(lock, [&] { return ending || releases != releases_before; });
  changed.wait_until(lock, in(rule.delay), [&] { return ending; });

  const bool needs_reader =
      (asked.kind == status_result && asked.name != "usbConnect") || asked.kind == text_result;
  outcome done;
  if (rule.vanish) {
    power(false);
    done = {true, no_reader_connected, {}, {}, {"unplugged in the middle of " + asked.name}};
  } else if (rule.fail) {
    done = {true, rule.error, {}, {}, {}};
  } else if (needs_reader && now.holder != asked.socket) {
    done = {true, no_reader_connected, {}, {}, {}};
  } else if (asked.own_error != no_error) {
    done = {true, asked.own_error, {}, {}, {}};
  } else {
    done = carry_out(asked);
  }
  note(asked, &done);
  if (!waits) ++counts[asked.name];
  const std::string with_id_questions = "GetQueuedID_index";
  const bool id_questions_wanted =
      now.traced == tracing::on ||
      (now.traced == tracing::quiet && (!done.values.empty() || asked.name == with_id_questions)) ||
      std::any_of(rules.begin(), rules.end(),
                  [&](const auto& each) { return each.call == with_id_questions; });
  lock.unlock();
  tell(done.events);
  changed.notify_all();

  message given{{reply_message, !done.failed, done.error, id_questions_wanted}, {}};
  given.numbers.insert(given.numbers.end(), done.values.begin(), done.values.end());
  if (done.text) given.texts = {*done.text};
  if (!rule.vanish) return send(given);
  const char half_a_size[2] = {};
  send_bytes(asked.socket, half_a_size, sizeof half_a_size, in(message_limit));
  return false;
}

// What a call does that nothing stands in the way of. The caller holds the lock.
device::outcome device::carry_out(const question& asked) {
  outcome done;
  if (asked.name == "usbConnect") {
    if (!now.plugged) return {true, no_reader_connected, {}, {}, {}};
    if (now.holder >= 0 && now.holder != asked.socket) {
      return {true, held_by_another_agent, {}, {}, {}};
    }
    now.holder = asked.socket;
    part_number_of_connection = now.part_number;
    done.events = {"connected"};
  } else if (asked.name == "USBDisconnect") {
    if (now.holder == asked.socket) {
      now.holder = -1;
      done.events = {"disconnected"};
    }
  } else if (asked.name == "getPartNumberString") {
    done.text = part_number_of_connection;
  } else if (asked.name == "GetDevName") {
    done.text = "virtual reader";
  } else if (asked.name == "GetQueuedID") {
    std::optional<card_id> id = now.held;
    if (!now.queue.empty()) {
      id = now.queue.front();
      now.queue.pop_front();
    }
    if (id) {
      done.values = {id->values.begin(), id->values.end()};
      done.values.push_back(id->bits);
      done.events = {"card " + to_text(*id)};
    }
  } else if (asked.name == "BeepNow" && asked.arguments.size() == 2) {
    const std::int64_t count = asked.arguments[0] & 0xFF;  // all that the call itself can hold
    const bool is_long = asked.arguments[1] != 0;
    (is_long ? now.long_beeps : now.short_beeps) += count;
    done.events = {(is_long ? "beep long " : "beep short ") + std::to_string(count)};
  } else if (asked.name == "SetLEDCtrl") {
    now.led = record_at(asked.arguments, 0);
    done.events = {"led " + to_text(now.led)};
  } else if (asked.name == "ReadCfg") {
    for (const record& fields : now.stored) {
      done.values.insert(done.values.end(), fields.begin(), fields.end());
    }
  } else if (asked.name == "WriteCfg") {
    for (std::size_t i = 0; i < now.stored.size(); ++i) {
      now.stored[i] = record_at(asked.extras, 8 * i);
    }
    done.events = {"config written"};
  } else if (asked.name == "ResetFactoryDflts") {
    now.stored = factory_defaults;
    now.led = now.stored[led_record];
    done.events = {"config reset", "led " + to_text(now.led)};
  }
  return done;
}

// Logs a call with its result. The caller holds the lock.
void device::note(const question& asked, outcome* done) {
  std::string line = asked.name + to_text(asked.arguments);
  if (asked.kind == status_result) {
    line += done->failed ? " -> 0" : " -> 1";
    if (!done->failed && asked.extras.size() == 8) line += to_text(asked.extras);
  } else if (asked.kind == number_result) {
    line += " ->" + to_text(asked.extras);
  } else if (asked.kind == text_result) {
    line += " -> " + (done->text ? quoted(*done->text) : "null");
  }
  const bool idle_poll = asked.name == "GetQueuedID" && !done->failed && done->values.empty();
  if (now.traced == tracing::on || (now.traced == tracing::quiet && !idle_poll)) {
    done->events.insert(done->events.begin(), "call " + line);
  }
  log.push_back(std::move(line));
  if (log.size() > longest_log) log.pop_front();
}

}  // namespace virtual_reader
