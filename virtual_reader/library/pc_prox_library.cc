// A reader library that talks to a virtual reader instead of a real one. Each function is one
// question to the virtual reader, named like the function, so that the virtual reader can log,
// delay and fail it. What the library keeps itself is what a library keeps in life: its link, the
// configuration on its way from the reader and back, the ID fetched last and the last error.
//
// As the header has it, one thread alone makes the calls.
#include <unistd.h>

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

using pc_prox::field;
using pc_prox::status;
using virtual_reader::message;
using virtual_reader::moment;
using record = std::array<field, 8>;

enum record_index : std::size_t { id_bit_counts, flags, times, flags2, led, record_count };

constexpr std::int64_t no_reader_connected = 1;  // error number
constexpr std::size_t id_bytes = 32;

// What a call takes along: a few numbers, held without allocating, since that may throw.
struct numbers {
  numbers(std::initializer_list<std::int64_t> given = {}) { append(given); }
  template <typename T>
  void append(const T& given) {
    for (const std::int64_t number : given) values[count++] = number;
  }
  std::array<std::int64_t, 1 + 8 * record_count> values{};
  std::size_t count = 0;
};

struct {
  int link = -1;  // to the virtual reader, whether or not its reader is plugged in
  moment next_attempt{};
  pc_prox::marker_function marker = nullptr;
  bool mismatch_told = false;
  std::int64_t last_error = 0;
  bool configuration_read = false;
  std::array<record, record_count> configuration{};
  std::array<std::int64_t, id_bytes + 1> id{};  // its bytes, then its length in bits
  bool id_questions_wanted = false;
  std::string text;  // the one returned last
} library;

void forget_reader() {
  library.configuration_read = false;
  library.id.fill(0);
}

void drop_link() {
  if (library.link >= 0) close(library.link);
  library.link = -1;
  library.id_questions_wanted = false;
  forget_reader();
}

void emit(std::string text, std::int64_t length, bool own_thread) {
  const pc_prox::marker_function marker = library.marker;
  if (!marker || length > static_cast<std::int64_t>(text.size())) return;
  const auto call = [&] { marker(text.data(), static_cast<int>(length)); };
  if (own_thread) {
    std::thread(call).join();
  } else {
    call();
  }
}

void make_link() {
  using namespace virtual_reader;
  const moment now = std::chrono::steady_clock::now();
  if (library.link >= 0 || now < library.next_attempt || !default_socket_path_is_private()) return;
  library.link = connect_to(default_socket_path());
  if (library.link < 0) return;
  const auto version = exchange_greetings(library.link);
  if (version == protocol_version) return;
  drop_link();
  if (!version) {
    // A listener that says nothing costs the agent its patience once a search, not at every call.
    library.next_attempt = in(message_limit);
  } else if (!std::exchange(library.mismatch_told, true)) {
    const std::string text = "virtual reader speaks protocol version " + std::to_string(*version) +
                             ", this library version " + std::to_string(protocol_version);
    emit(text, static_cast<std::int64_t>(text.size()), false);
  }
}

// Asks the question and acts on interim messages until the reply; nothing when the link has failed.
std::optional<message> exchange(const char* name, const numbers& arguments, const numbers& extras) {
  using namespace virtual_reader;
  message question{{static_cast<std::int64_t>(arguments.count)}, {name}};
  for (const numbers* part : {&arguments, &extras}) {
    question.numbers.insert(question.numbers.end(), part->values.begin(),
                            part->values.begin() + static_cast<std::ptrdiff_t>(part->count));
  }
  moment until = in(message_limit);
  if (!send_message(library.link, question, until)) return {};
  while (auto answer = receive_message(library.link, answer_size_limit, until)) {
    const std::vector<std::int64_t>& given = answer->numbers;
    if (given.size() >= 4 && given[0] == reply) return answer;
    if (given.size() == 2 && given[0] == patience) {
      const std::chrono::milliseconds longer{std::min<std::int64_t>(given[1], 1'000'000'000)};
      until = longer.count() < 0 ? never : in(message_limit + longer);
    } else if (given.size() == 3 && given[0] == say && answer->texts.size() == 1) {
      emit(std::move(answer->texts[0]), given[1], given[2] != 0);
    } else {
      return {};
    }
  }
  return {};
}

struct answer {
  std::int64_t result = 0;
  std::vector<std::int64_t> values;
  std::optional<std::string> text;
};

// Makes a call of the virtual reader. Without one, or when it goes away meanwhile, the result is 0.
answer call(const char* name, const numbers& arguments = {}, const numbers& extras = {},
            bool may_link = false) noexcept {
  try {
    if (may_link) make_link();
    if (library.link < 0) {
      library.last_error = no_reader_connected;
      return {};
    }
    if (auto given = exchange(name, arguments, extras)) {
      answer told;
      told.result = given->numbers[1];
      if (given->numbers[2] != 0) library.last_error = given->numbers[2];
      library.id_questions_wanted = given->numbers[3] != 0;
      told.values.assign(given->numbers.begin() + 4, given->numbers.end());
      if (!given->texts.empty()) told.text = std::move(given->texts[0]);
      return told;
    }
  } catch (...) {  // out of memory or threads; the caller is C
  }
  drop_link();
  library.last_error = no_reader_connected;
  return {};
}

status call_status(const char* name, const numbers& arguments = {}, const numbers& extras = {}) {
  return call(name, arguments, extras).result != 0;
}

template <typename T>
status get_record(const char* name, record_index index, T* out) {
  static_assert(sizeof(T) == sizeof(record));
  numbers extras = {library.configuration_read};
  extras.append(library.configuration[index]);
  const status done = call_status(name, {}, extras);
  if (done) std::memcpy(out, &library.configuration[index], sizeof(T));
  return done;
}

template <typename T>
status set_record(const char* name, record_index index, const T* given) {
  record fields;
  std::memcpy(&fields, given, sizeof fields);
  numbers arguments;
  arguments.append(fields);
  const status done = call_status(name, arguments, {library.configuration_read});
  if (done) library.configuration[index] = fields;
  return done;
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  library.marker = function;
  call(__func__, {function != nullptr}, {}, true);
}
void USBDisconnect() {
  forget_reader();
  call(__func__, {}, {}, true);
}
status usbConnect() {
  forget_reader();
  return call(__func__, {}, {}, true).result != 0;
}
void SetDevTypeSrch(std::int16_t device_type) { call(__func__, {device_type}); }
std::int64_t GetLastLibErr() {
  const std::int64_t error = library.last_error;
  call(__func__, {}, {error});
  return error;
}
status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  return call_status(__func__, {count, long_beep});
}
status GetQueuedID(std::int16_t first, std::int16_t second) {
  library.id.fill(0);
  const answer told = call(__func__, {first, second});
  if (told.values.size() == library.id.size()) {
    std::copy(told.values.begin(), told.values.end(), library.id.begin());
  }
  return told.result != 0;
}
std::int64_t GetQueuedID_index(std::int16_t index) {
  const auto place = static_cast<std::size_t>(index);
  const std::int64_t value = place < library.id.size() ? library.id[place] : 0;
  if (library.id_questions_wanted) call(__func__, {index}, {value});
  return value;
}
const char* getPartNumberString() {
  answer told = call(__func__);
  if (!told.text) return nullptr;
  library.text = std::move(*told.text);
  return library.text.c_str();
}
void GetDevName(char* name) {
  const answer told = call(__func__);
  std::strcpy(name, told.text ? told.text->c_str() : "");
}
status ReadCfg() {
  const answer told = call(__func__);
  const bool whole = told.result != 0 && told.values.size() == record_count * 8;
  for (std::size_t i = 0; whole && i < told.values.size(); ++i) {
    library.configuration[i / 8][i % 8] = static_cast<field>(told.values[i]);
  }
  library.configuration_read = whole;
  return whole;
}
status WriteCfg() {
  numbers extras = {library.configuration_read};
  for (const record& fields : library.configuration) extras.append(fields);
  return call_status(__func__, {}, extras);
}
status ResetFactoryDflts() { return call_status(__func__); }

status GetIDBitCnts(pc_prox::sIDBitCnts* r) { return get_record(__func__, id_bit_counts, r); }
status SetIDBitCnts(pc_prox::sIDBitCnts* r) { return set_record(__func__, id_bit_counts, r); }
status GetFlags(pc_prox::sCfgFlags* r) { return get_record(__func__, flags, r); }
status SetFlags(pc_prox::sCfgFlags* r) { return set_record(__func__, flags, r); }
status GetTimeParms(pc_prox::sTimeParms* r) { return get_record(__func__, times, r); }
status SetTimeParms(pc_prox::sTimeParms* r) { return set_record(__func__, times, r); }
status GetFlags2(pc_prox::sCfgFlags2* r) { return get_record(__func__, flags2, r); }
status SetFlags2(pc_prox::sCfgFlags2* r) { return set_record(__func__, flags2, r); }
status GetLEDCtrl(pc_prox::sLEDCtrl* r) { return get_record(__func__, led, r); }
status SetLEDCtrl(pc_prox::sLEDCtrl* r) { return set_record(__func__, led, r); }

}  // extern "C"
