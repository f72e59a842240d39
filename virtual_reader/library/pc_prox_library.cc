// A reader library that talks to a virtual reader instead of a real one. Each function is one
// question to the virtual reader, named like the function, so that the virtual reader can log,
// delay and fail it.
//
// As the header has it, one thread alone makes the calls.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "call.h"
#include "socket_path.h"
#include "wire.h"
#pragma GCC visibility push(default)
#include "pc_prox_api.h"
#pragma GCC visibility pop

namespace {

using namespace virtual_reader;
using pc_prox::status;
using fields = std::array<pc_prox::field, 8>;
using numbers = std::vector<std::int64_t>;

struct {
  descriptor link;        // to the virtual reader, whether or not its reader is plugged in
  moment next_attempt{};  // a silent listener costs the agent its patience once, not at every call
  pc_prox::marker_function marker = nullptr;
  bool has_said_mismatch = false;
  std::int64_t last_error = 0;  // without a link; the virtual reader knows it else
  numbers id;        // fetched last: its 32 bytes, then its length in bits; empty: ask for it
  std::string text;  // the one returned last
} library;

void emit(std::string text, std::int64_t length, bool own_thread) {
  const pc_prox::marker_function marker = library.marker;
  const auto told = static_cast<int>(length);
  if (!marker || told != length || length > static_cast<std::int64_t>(text.size())) return;
  const auto call = [&] { marker(text.data(), told); };
  own_thread ? std::thread(call).join() : call();
}

void make_link() {
  const moment now = std::chrono::steady_clock::now();
  if (library.link.number >= 0 || now < library.next_attempt) return;
  if (!default_socket_path_is_private()) return;
  library.link.number = connect_to(default_socket_path());
  if (library.link.number < 0) return;
  const auto peer = exchange_greetings(library.link.number, agent_greeting);
  if (peer && peer->version == protocol_version) return;
  library.link.reset();
  if (!peer) {
    library.next_attempt = in(message_limit);
  } else if (!std::exchange(library.has_said_mismatch, true)) {
    const std::string text = "virtual reader speaks protocol version " +
                             std::to_string(peer->version) + ", this library version " +
                             std::to_string(protocol_version);
    emit(text, static_cast<std::int64_t>(text.size()), false);
  }
}

// Sends the call and acts on what precedes its reply; nothing when the link has failed.
std::optional<call> exchange(const call& made) {
  moment until = in(message_limit);
  if (!send_message(library.link.number, to_text(made), until)) return {};
  while (const auto line = receive_message(library.link.number, answer_size_limit, until)) {
    const std::string delayed = "delayed ";
    if (auto said = parse_says(*line)) {
      emit(std::move(said->text), said->length, said->own_thread);
    } else if (line->rfind(delayed, 0) == 0) {
      const long long longer = std::atoll(line->c_str() + delayed.size());
      until =
          in(message_limit + std::chrono::milliseconds(std::clamp(longer, 0LL, 1'000'000'000LL)));
    } else {
      auto reply = parse_call(*line);
      return reply && reply->has_ended && reply->name == made.name ? reply : std::nullopt;
    }
  }
  if (std::chrono::steady_clock::now() >= until) library.next_attempt = in(message_limit);
  return {};
}

// Makes a call of the virtual reader. Without one, or when it goes away meanwhile, the result is 0.
call ask(const char* name, const numbers& arguments = {}, bool may_link = false) noexcept {
  try {
    if (may_link) make_link();
    call made{name, arguments};
    made.has_ended = false;
    if (library.link.number >= 0) {
      if (auto reply = exchange(made)) return *std::move(reply);
    }
  } catch (...) {  // out of memory or threads; the caller is C
  }
  library.link.reset();
  library.last_error = no_reader_connected;
  return {};
}

bool has_succeeded(const call& reply) { return !reply.values.empty() && reply.values[0] != 0; }

status ask_status(const char* name, const numbers& arguments = {}, bool may_link = false) {
  return has_succeeded(ask(name, arguments, may_link));
}

template <typename T>
status get_record(const char* name, T* out) {
  const call reply = ask(name);
  fields all{};
  static_assert(sizeof all == sizeof(T));
  if (!has_succeeded(reply) || reply.values.size() != 1 + all.size()) return 0;
  for (std::size_t i = 0; i < all.size(); ++i)
    all[i] = static_cast<pc_prox::field>(reply.values[i + 1]);
  std::memcpy(out, &all, sizeof all);
  return 1;
}

template <typename T>
status set_record(const char* name, const T* given) {
  fields all;
  static_assert(sizeof all == sizeof(T));
  std::memcpy(&all, given, sizeof all);
  return ask_status(name, {all.begin(), all.end()});
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  // Set before, since this very call may print texts.
  const pc_prox::marker_function before = std::exchange(library.marker, function);
  if (ask(__func__, {function != nullptr}, true).has_failed()) library.marker = before;
}
void USBDisconnect() { ask(__func__, {}, true); }
status usbConnect() { return ask_status(__func__, {}, true); }
void SetDevTypeSrch(std::int16_t device_type) { ask(__func__, {device_type}); }
std::int64_t GetLastLibErr() {
  const std::int64_t error = library.last_error;
  const call reply = ask(__func__);
  return reply.values.empty() ? error : reply.values[0];
}
status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  return ask_status(__func__, {count, long_beep});
}
status GetQueuedID(std::int16_t first, std::int16_t second) {
  const call reply = ask(__func__, {first, second});
  library.id.clear();
  if (reply.values.size() == 34) library.id.assign(reply.values.begin() + 1, reply.values.end());
  return has_succeeded(reply);
}
std::int64_t GetQueuedID_index(std::int16_t index) {
  const auto place = static_cast<std::size_t>(index);
  if (!library.id.empty()) return place < library.id.size() ? library.id[place] : 0;
  const call reply = ask(__func__, {index});
  return reply.values.empty() ? 0 : reply.values[0];
}
const char* getPartNumberString() {
  call reply = ask(__func__);
  if (!reply.text) return nullptr;
  library.text = std::move(*reply.text);
  return library.text.c_str();
}
void GetDevName(char* name) { std::strcpy(name, ask(__func__).text.value_or("").c_str()); }
status ReadCfg() { return ask_status(__func__); }
status WriteCfg() { return ask_status(__func__); }
status ResetFactoryDflts() { return ask_status(__func__); }

#define RECORD(name, type)                                               \
  status Get##name(pc_prox::type* r) { return get_record(__func__, r); } \
  status Set##name(pc_prox::type* r) { return set_record(__func__, r); }
RECORD(IDBitCnts, sIDBitCnts)
RECORD(Flags, sCfgFlags)
RECORD(TimeParms, sTimeParms)
RECORD(Flags2, sCfgFlags2)
RECORD(LEDCtrl, sLEDCtrl)

}  // extern "C"
