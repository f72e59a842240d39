// A reader library that hands every call to another one, unchanged and on the same thread, and
// writes down what was called and what came of it.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#pragma GCC visibility push(default)
#include "pc_prox_api.h"
#pragma GCC visibility pop
#include "call.h"
#include "reader_library.h"
#include "recording_file.h"

namespace {

using namespace bringup;
using pc_prox::status;
using clock = std::chrono::steady_clock;
using library_call = virtual_reader::call;

// The library beside this one.
std::string path_of_recorded() {
  Dl_info self{};
  dladdr(reinterpret_cast<void*>(&path_of_recorded), &self);
  const std::string path = self.dli_fname ? self.dli_fname : "";
  return path.substr(0, path.rfind('/') + 1) + RECORDED_LIBRARY;
}

std::string about(const std::string& path) {
  struct stat found {};
  stat(path.c_str(), &found);
  return "# library " RECORDED_LIBRARY ", " + std::to_string(found.st_size) + " bytes\n";
}

// All that there is. Built when this library is loaded, so that the other one is loaded then too;
// never taken down, since a thread of it may still speak at the end.
struct recorder {
  const std::string path = path_of_recorded();
  reader_library library;
  recording_file file{about(path)};
  std::atomic<pc_prox::marker_function> marker{nullptr};

  recorder() {
    std::string problem = library.load(path);
    for (const std::string& name : library.missing) problem += " " + name + " is missing.";
    if (problem.empty()) return;
    // As the loader would, of a library that the agent links with.
    std::fprintf(stderr, "card reader recorder: cannot load %s: %s\n", path.c_str(),
                 problem.c_str());
    _exit(127);
  }
};
recorder& self = *new recorder;

thread_local bool is_calling = false;

// What the recorded library takes for the marker function.
void relay(char* text, int length) {
  try {
    virtual_reader::says said;
    if (length > 0 && text) said.text.assign(text, static_cast<std::size_t>(length));
    said.length = text ? length : std::min(length, 0);
    said.own_thread = !is_calling;
    if (self.file.is_on()) self.file.add(to_text(said));
  } catch (...) {  // out of memory
  }
  self.marker.load()(text, length);
}

using numbers = std::initializer_list<std::int64_t>;

// Adds an entry for the call; `describe` adds to the text what more is known of it.
template <typename D>
void write_down(const char* name, numbers arguments, const D& describe) noexcept try {
  library_call text;
  text.name = name;
  text.arguments = arguments;
  describe(&text);
  self.file.add(to_text(text));
} catch (...) {  // out of memory
}

// Makes the call and writes it down. `describe` adds to the text what came of it.
template <typename F, typename D>
void make(const char* name, numbers arguments, const F& call, const D& describe) {
  if (!self.file.is_on()) return call();
  // Of a call that never returns, this is all that there will be. The 33 calls of a poll that only
  // hand out what it has fetched would make twice the file of it.
  if (std::strcmp(name, "GetQueuedID_index") != 0) {
    write_down(name, arguments, [](library_call* text) { text->has_ended = false; });
  }
  is_calling = true;
  const auto begin = clock::now();
  call();
  const auto took = clock::now() - begin;
  is_calling = false;
  write_down(name, arguments, [&](library_call* text) {
    text->took = std::chrono::duration_cast<std::chrono::microseconds>(took);
    describe(text);
  });
}

template <typename F>
void no_result(const char* name, numbers arguments, const F& call) {
  make(name, arguments, call, [](library_call*) {});
}

template <typename F>
auto number_result(const char* name, numbers arguments, const F& call) {
  decltype(call()) result{};
  make(
      name, arguments, [&] { result = call(); },
      [&](library_call* text) {
        text->has_result = true;
        text->values = {result};
      });
  return result;
}

using fields = std::array<pc_prox::field, 8>;

template <typename T>
fields fields_of(const T* record) {
  fields all;
  static_assert(sizeof all == sizeof(T));
  std::memcpy(&all, record, sizeof all);
  return all;
}

template <typename T>
status get_record(const char* name, status (*get)(T*), T* record) {
  status result{};
  make(
      name, {}, [&] { result = get(record); },
      [&](library_call* text) {
        text->has_result = true;
        text->values = {result};
        if (result == 0) return;
        const fields given = fields_of(record);
        text->values.insert(text->values.end(), given.begin(), given.end());
      });
  return result;
}

template <typename T>
status set_record(const char* name, status (*set)(T*), T* record) {
  const fields f = fields_of(record);
  return number_result(name, {f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7]},
                       [&] { return set(record); });
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  // One that is removed is kept: should the library call it all the same, it is not for this one to
  // prevent.
  if (function) self.marker = function;
  no_result(__func__, {function != nullptr},
            [&] { self.library.SetMarkerFunction(function ? relay : nullptr); });
}
void USBDisconnect() { no_result(__func__, {}, self.library.USBDisconnect); }
void SetDevTypeSrch(std::int16_t device_type) {
  no_result(__func__, {device_type}, [&] { self.library.SetDevTypeSrch(device_type); });
}
status usbConnect() { return number_result(__func__, {}, self.library.usbConnect); }
std::int64_t GetLastLibErr() { return number_result(__func__, {}, self.library.GetLastLibErr); }
status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  return number_result(__func__, {count, long_beep},
                       [&] { return self.library.BeepNow(count, long_beep); });
}
status GetQueuedID(std::int16_t first, std::int16_t second) {
  return number_result(__func__, {first, second},
                       [&] { return self.library.GetQueuedID(first, second); });
}
std::int64_t GetQueuedID_index(std::int16_t index) {
  return number_result(__func__, {index}, [&] { return self.library.GetQueuedID_index(index); });
}
const char* getPartNumberString() {
  const char* result = nullptr;
  make(
      __func__, {}, [&] { result = self.library.getPartNumberString(); },
      [&](library_call* text) {
        text->has_result = text->has_text = true;
        if (result) text->text = result;
      });
  return result;
}
void GetDevName(char* name) {
  make(
      __func__, {}, [&] { self.library.GetDevName(name); },
      [&](library_call* text) {
        text->has_result = text->has_text = true;
        text->text = name;
      });
}
status ReadCfg() { return number_result(__func__, {}, self.library.ReadCfg); }
status WriteCfg() { return number_result(__func__, {}, self.library.WriteCfg); }
status ResetFactoryDflts() { return number_result(__func__, {}, self.library.ResetFactoryDflts); }

#define RECORD(name, type)                                                                       \
  status Get##name(pc_prox::type* r) { return get_record(__func__, self.library.Get##name, r); } \
  status Set##name(pc_prox::type* r) { return set_record(__func__, self.library.Set##name, r); }
RECORD(IDBitCnts, sIDBitCnts)
RECORD(Flags, sCfgFlags)
RECORD(TimeParms, sTimeParms)
RECORD(Flags2, sCfgFlags2)
RECORD(LEDCtrl, sLEDCtrl)

}  // extern "C"
