// A reader library that talks to a virtual reader instead of a real one. Each function is one
// question to the virtual reader, named like the function, so that the virtual reader can log,
// delay and fail it. What the library keeps itself is what a library keeps in life: its link, the
// configuration on its way from the reader and back, the ID fetched last and the last error.
//
// As the header has it, one thread alone makes the calls.
#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <thread>
#include <utility>

#include "socket_path.h"
#include "wire.h"
#pragma GCC visibility push(default)
#include "pc_prox_api.h"
#pragma GCC visibility pop

namespace {

using namespace virtual_reader;
using pc_prox::status;
using record = std::array<pc_prox::field, 8>;

enum record_index : std::size_t { id_bit_counts, flags, times, flags2, led, record_count };

// What a call takes along: a few numbers, held without allocating, since that may throw.
struct numbers {
  numbers() = default;
  numbers(std::initializer_list<std::int64_t> given) { append(given); }
  template <typename T>
  void append(const T& given) {
    for (const std::int64_t number : given) values[count++] = number;
  }
  void append_to(std::vector<std::int64_t>* all) const {
    all->insert(all->end(), values.begin(), values.begin() + static_cast<std::ptrdiff_t>(count));
  }
  std::array<std::int64_t, 8 * record_count> values{};
  std::size_t count = 0;
};

struct answer {
  bool came = false;  // from a virtual reader
  std::int64_t result = 0;
  std::vector<std::int64_t> values;
  std::optional<std::string> text;
};

struct {
  descriptor link;        // to the virtual reader, whether or not its reader is plugged in
  moment next_attempt{};  // a silent listener costs the agent its patience once, not at every call
  pc_prox::marker_function marker = nullptr;
  bool mismatch_told = false;
  std::int64_t last_error = 0;
  bool configuration_read = false;
  std::array<record, record_count> configuration{};
  std::array<std::int64_t, 33> id{};  // its 32 bytes, then its length in bits
  bool id_questions_wanted = false;
  std::string text;  // the one returned last
} library;

void drop_link() {
  library.link.reset();
  library.id_questions_wanted = false;
  library.configuration_read = false;
}

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
  drop_link();
  if (!peer) {
    library.next_attempt = in(message_limit);
  } else if (!std::exchange(library.mismatch_told, true)) {
    const std::string text = "virtual reader speaks protocol version " +
                             std::to_string(peer->version) + ", this library version " +
                             std::to_string(protocol_version);
    emit(text, static_cast<std::int64_t>(text.size()), false);
  }
}

// Asks the question and acts on interim messages until the reply; nothing when the link has failed.
std::optional<answer> exchange(const message& question) {
  moment until = in(message_limit);
  if (!send_message(library.link.number, question, until)) return {};
  while (auto given = receive_message(library.link.number, answer_size_limit, until)) {
    const std::vector<std::int64_t>& told = given->numbers;
    std::vector<std::string>& texts = given->texts;
    if (told.size() >= 4 && told[0] == reply_message) {
      if (told[1] == 0) library.last_error = told[2];
      library.id_questions_wanted = told[3] != 0;
      answer result{true, told[1], {told.begin() + 4, told.end()}, {}};
      if (!texts.empty()) result.text = std::move(texts[0]);
      return result;
    }
    if (told.size() == 2 && told[0] == patience_message && told[1] >= 0) {
      const std::chrono::milliseconds longer{std::min<std::int64_t>(told[1], 1'000'000'000)};
      until = in(message_limit + longer);
    } else if (told.size() == 3 && told[0] == say_message && texts.size() == 1) {
      emit(std::move(texts[0]), told[1], told[2] != 0);
    } else {
      return {};
    }
  }
  if (std::chrono::steady_clock::now() >= until) library.next_attempt = in(message_limit);
  return {};
}

// Makes a call of the virtual reader. Without one, or when it goes away meanwhile, the result is 0.
answer ask(const char* name, result_kind kind, const numbers& arguments = {},
           const numbers& extras = {}, error_number own_error = no_error,
           bool may_link = false) noexcept {
  try {
    if (may_link) make_link();
    if (library.link.number >= 0) {
      message question{{kind, own_error, static_cast<std::int64_t>(arguments.count)}, {name}};
      arguments.append_to(&question.numbers);
      extras.append_to(&question.numbers);
      if (auto told = exchange(question)) return *std::move(told);
    }
  } catch (...) {  // out of memory or threads; the caller is C
  }
  drop_link();
  library.last_error = no_reader_connected;
  return {};
}

status ask_status(const char* name, const numbers& arguments = {}, const numbers& extras = {},
                  error_number own_error = no_error) {
  return ask(name, status_result, arguments, extras, own_error).result != 0;
}

error_number unless_read() { return library.configuration_read ? no_error : no_configuration_read; }

template <typename T>
status get_record(const char* name, record_index index, T* out) {
  static_assert(sizeof(T) == sizeof(record));
  numbers fields;
  fields.append(library.configuration[index]);
  const status done = ask_status(name, {}, fields, unless_read());
  if (done) std::memcpy(out, &library.configuration[index], sizeof(T));
  return done;
}

template <typename T>
status set_record(const char* name, record_index index, const T* given,
                  bool needs_configuration = true) {
  record fields;
  std::memcpy(&fields, given, sizeof fields);
  numbers arguments;
  arguments.append(fields);
  const status done =
      ask_status(name, arguments, {}, needs_configuration ? unless_read() : no_error);
  if (done) library.configuration[index] = fields;
  return done;
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  // Set before, since texts may come during this very call.
  const pc_prox::marker_function before = std::exchange(library.marker, function);
  const answer told = ask(__func__, no_result, {function != nullptr}, {}, no_error, true);
  if (told.came && told.result == 0) library.marker = before;
}
void USBDisconnect() {
  library.configuration_read = false;
  ask(__func__, no_result, {}, {}, no_error, true);
}
status usbConnect() {
  library.configuration_read = false;
  return ask(__func__, status_result, {}, {}, no_error, true).result != 0;
}
void SetDevTypeSrch(std::int16_t device_type) { ask(__func__, no_result, {device_type}); }
std::int64_t GetLastLibErr() {
  const std::int64_t error = library.last_error;
  ask(__func__, number_result, {}, {error});
  return error;
}
status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  return ask_status(__func__, {count, long_beep});
}
status GetQueuedID(std::int16_t first, std::int16_t second) {
  library.id.fill(0);
  const answer told = ask(__func__, status_result, {first, second});
  if (told.values.size() == library.id.size()) {
    std::copy(told.values.begin(), told.values.end(), library.id.begin());
  }
  return told.result != 0;
}
std::int64_t GetQueuedID_index(std::int16_t index) {
  const auto place = static_cast<std::size_t>(index);
  const std::int64_t value = place < library.id.size() ? library.id[place] : 0;
  if (library.id_questions_wanted) ask(__func__, number_result, {index}, {value});
  return value;
}
const char* getPartNumberString() {
  answer told = ask(__func__, text_result);
  if (!told.text) return nullptr;
  library.text = std::move(*told.text);
  return library.text.c_str();
}
void GetDevName(char* name) {
  const answer told = ask(__func__, text_result);
  std::strcpy(name, told.text ? told.text->c_str() : "");
}
status ReadCfg() {
  const answer told = ask(__func__, status_result);
  const bool whole = told.result != 0 && told.values.size() == 8 * record_count;
  for (std::size_t i = 0; whole && i < told.values.size(); ++i) {
    library.configuration[i / 8][i % 8] = static_cast<pc_prox::field>(told.values[i]);
  }
  library.configuration_read = whole;
  return whole;
}
status WriteCfg() {
  numbers all;
  for (const record& fields : library.configuration) all.append(fields);
  return ask_status(__func__, {}, all, unless_read());
}
status ResetFactoryDflts() { return ask_status(__func__); }

status GetIDBitCnts(pc_prox::sIDBitCnts* r) { return get_record(__func__, id_bit_counts, r); }
status GetFlags(pc_prox::sCfgFlags* r) { return get_record(__func__, flags, r); }
status GetTimeParms(pc_prox::sTimeParms* r) { return get_record(__func__, times, r); }
status GetFlags2(pc_prox::sCfgFlags2* r) { return get_record(__func__, flags2, r); }
status GetLEDCtrl(pc_prox::sLEDCtrl* r) { return get_record(__func__, led, r); }
status SetIDBitCnts(pc_prox::sIDBitCnts* r) { return set_record(__func__, id_bit_counts, r); }
status SetFlags(pc_prox::sCfgFlags* r) { return set_record(__func__, flags, r); }
status SetTimeParms(pc_prox::sTimeParms* r) { return set_record(__func__, times, r); }
status SetFlags2(pc_prox::sCfgFlags2* r) { return set_record(__func__, flags2, r); }
// The LED follows at once, also outside a configuration.
status SetLEDCtrl(pc_prox::sLEDCtrl* r) { return set_record(__func__, led, r, false); }

}  // extern "C"
