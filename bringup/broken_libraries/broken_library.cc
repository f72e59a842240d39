// A reader library that behaves as the agent expects, but for the faults that the environment
// variable BROKEN names, each with a semicolon after it. The rest is the library's at
// WHOLE_LIBRARY.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "reader_library.h"

namespace {

using pc_prox::status;

std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

const bringup::reader_library& whole() {
  static const bringup::reader_library* const library = [] {
    auto* const loaded = new bringup::reader_library;
    if (!loaded->load(variable("WHOLE_LIBRARY")).empty()) std::abort();
    return loaded;
  }();
  return *library;
}

bool broken(const char* fault) {
  static const std::string chosen = variable("BROKEN");
  return chosen.find(fault + std::string(";")) != std::string::npos;
}

void hang() {
  for (;;) pause();
}

struct {
  pc_prox::marker_function marker, removed_marker;
  int beeps, connections, polls, polls_with_card, reads;
  bool was_disconnected, was_dropped, has_taken;
  std::int64_t card[33];
  char part_number[100];
} state;

struct lifetime {
  lifetime() {
    if (broken("crashes while loading")) std::abort();
    if (broken("exits while loading")) _exit(3);
  }
  ~lifetime() {
    if (broken("crashes at exit")) std::abort();
    if (broken("hangs at exit") && state.beeps) hang();
  }
} lifetime;

void say(pc_prox::marker_function marker, int length, std::string text) {
  if (marker) marker(text.data(), length);
}

// Set reaches the reader at once where that is the fault.
template <typename T>
status set(status (*function)(T*), T* record) {
  const status done = function(record);
  return done != 0 && broken("stores at each Set") ? whole().WriteCfg() : done;
}

std::string lock_file() { return variable("VIRTUAL_READER_SOCKET") + ".taken"; }

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  if (broken("crashes when the marker function is set again") && state.removed_marker) std::abort();
  if (!function) state.removed_marker = state.marker;
  state.marker = function;
  whole().SetMarkerFunction(function);
}

void USBDisconnect() {
  const bool is_second = state.was_disconnected && state.connections == 0;
  if (broken("hangs when disconnected twice") && is_second) hang();
  state.was_disconnected = true;
  if (state.has_taken) unlink(lock_file().c_str());
  state.has_taken = false;
  whole().USBDisconnect();
}

status usbConnect() {
  state.was_disconnected = state.was_dropped = false;
  state.polls = 0;
  if (broken("prints")) std::printf("connecting\n");
  if (broken("connects slowly") && state.connections == 0) usleep(1'100'000);
  if (broken("never connects")) return 0;
  if (broken("keeps the reader taken")) {
    if (access(lock_file().c_str(), F_OK) == 0) return 0;
    close(open(lock_file().c_str(), O_CREAT | O_WRONLY, 0600));
    state.has_taken = true;
  }
  if (broken("leaks descriptors") && open("/dev/null", O_RDONLY) < 0) return 0;
  const status done = whole().usbConnect();
  state.connections += done != 0;
  return broken("connects without a reader") && state.connections == 0 ? status{1} : done;
}

const char* getPartNumberString() {
  const char* const text = whole().getPartNumberString();
  if (!broken("lets the part number fade") || !text) return text;
  std::strncpy(state.part_number, text, sizeof state.part_number - 1);
  std::thread([] {
    usleep(50'000);
    state.part_number[0] = '-';
  }).detach();
  return state.part_number;
}

status GetQueuedID(std::int16_t first, std::int16_t second) {
  ++state.polls;
  if (broken("polls slowly") && state.polls < 12) usleep(260'000);
  if (state.was_dropped || (broken("fails the first polls") && state.polls < 3)) return 0;
  if (broken("fails one poll in a hundred") && state.polls % 100 == 0) return 0;
  const status done = whole().GetQueuedID(first, second);
  std::int64_t card[33];
  bool found = false;
  for (std::int16_t i = 0; i < 33; ++i) found |= (card[i] = whole().GetQueuedID_index(i)) != 0;
  state.polls_with_card = found ? state.polls_with_card + 1 : 0;
  const auto bytes = (card[32] + 7) / 8;
  if (found || !broken("reports a card without end")) std::memcpy(state.card, card, sizeof card);
  if (broken("gives an empty ID a length") && !found) state.card[32] = 26;
  if (broken("counts bytes") && found) state.card[32] = bytes;
  for (std::int64_t i = 0; broken("puts the most significant byte first") && i < bytes; ++i) {
    state.card[i] = card[bytes - 1 - i];
  }
  const bool is_repeated = broken("reports a held card once") && state.polls_with_card > 1;
  if (broken("reports no card") || is_repeated) std::memset(state.card, 0, sizeof state.card);
  if (broken("returns 0 without a card") && !found) return 0;
  if (broken("returns 8 bits") && done == 0) return 0x4100;
  return broken("polls an unplugged reader") && state.connections != 0 ? status{1} : done;
}

std::int64_t GetQueuedID_index(std::int16_t index) { return state.card[index]; }

status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  if (broken("starts a helper") && state.beeps == 0 && fork() == 0) hang();
  ++state.beeps;
  if (broken("says a level for the length")) say(state.marker, 2, "beeping");
  if (broken("says a length beyond the text")) say(state.marker, 9, {"beep\0....", 9});
  if (broken("says on another thread")) std::thread([] { say(state.marker, 4, "beep"); }).join();
  const bool is_removed = !state.marker;
  if (broken("says after removal") && is_removed) say(state.removed_marker, 4, "late");
  return whole().BeepNow(count, broken("beeps shortly only") ? 0 : long_beep);
}

std::int64_t GetLastLibErr() { return broken("has no error number") ? 0 : whole().GetLastLibErr(); }
void SetDevTypeSrch(std::int16_t device_type) { whole().SetDevTypeSrch(device_type); }
void GetDevName(char* name) { whole().GetDevName(name); }

status ReadCfg() {
  ++state.reads;
  return whole().ReadCfg();
}
status WriteCfg() {
  state.was_dropped |= broken("drops the connection at WriteCfg");
  return broken("does not write") ? status{1} : whole().WriteCfg();
}
status ResetFactoryDflts() {
  state.was_dropped |= broken("drops the connection at a reset");
  return broken("does not reset") ? status{0} : whole().ResetFactoryDflts();
}

status GetIDBitCnts(pc_prox::sIDBitCnts* record) { return whole().GetIDBitCnts(record); }
status SetIDBitCnts(pc_prox::sIDBitCnts* record) {
  if (broken("forgets fields")) record->reserved10 = 0;
  return set(whole().SetIDBitCnts, record);
}
status GetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes 18 bytes")) std::memset(reinterpret_cast<char*>(record + 1), 0, 2);
  return whole().GetFlags(record);
}
status SetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes before a record")) std::memset(reinterpret_cast<char*>(record) - 2, 0, 2);
  return set(whole().SetFlags, record);
}
status GetTimeParms(pc_prox::sTimeParms* record) {
  const status done = whole().GetTimeParms(record);
  if (broken("reads another value once") && state.reads == 2) ++record->reserved14;
  return done;
}
status SetTimeParms(pc_prox::sTimeParms* record) { return set(whole().SetTimeParms, record); }
status GetFlags2(pc_prox::sCfgFlags2* record) { return whole().GetFlags2(record); }
status SetFlags2(pc_prox::sCfgFlags2* record) { return set(whole().SetFlags2, record); }
status GetLEDCtrl(pc_prox::sLEDCtrl* record) { return whole().GetLEDCtrl(record); }
status SetLEDCtrl(pc_prox::sLEDCtrl* record) {
  if (broken("needs ReadCfg for the LED") && state.reads == 0) return 0;
  if (broken("knows no amber") && record->iRedLEDState && record->iGrnLEDState) return 1;
  if (broken("stores at each Set")) ReadCfg();
  return set(whole().SetLEDCtrl, record);
}

}  // extern "C"
