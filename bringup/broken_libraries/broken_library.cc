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
  int beeps, connections, polls, polls_with_card, reads, writes;
  bool was_disconnected, was_lost, was_dropped, is_first_get, has_taken;
  std::int64_t card[33];
  char part_number[100];
} state;

struct lifetime {
  lifetime() {
    if (broken("crashes while loading")) std::abort();
    if (broken("exits while loading")) _exit(3);
  }
  ~lifetime() {
    if (broken("prints at exit")) std::printf("the end\n");
    if (broken("crashes at exit")) std::abort();
    if (broken("hangs at exit") && state.beeps) hang();
  }
} lifetime;

void say(std::string text, int length) {
  if (state.marker) state.marker(text.data(), length);
}
void say(const std::string& text) { say(text, static_cast<int>(text.size())); }

// Set reaches the reader at once where that is the fault.
status stored(status done) {
  return done != 0 && broken("stores at each Set") ? whole().WriteCfg() : done;
}

std::string lock_file() { return variable("VIRTUAL_READER_SOCKET") + ".taken"; }

// The status of a call that may drop the connection.
status dropping(const char* fault, status done) {
  state.was_dropped |= broken(fault);
  return done;
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  if (broken("crashes when the marker function is set again") && state.removed_marker) std::abort();
  if (!function) state.removed_marker = state.marker;
  state.marker = function;
  whole().SetMarkerFunction(function);
}

void USBDisconnect() {
  if (broken("hangs when disconnected twice") && state.was_disconnected && !state.connections)
    hang();
  state.was_disconnected = true;
  if (state.has_taken) unlink(lock_file().c_str());
  state.has_taken = false;
  whole().USBDisconnect();
}

status usbConnect() {
  state.was_disconnected = state.was_dropped = false;
  state.polls = 0;
  if (broken("prints")) std::printf("connecting\n");
  if (broken("connects slowly") && state.connections == 1) usleep(1'100'000);
  if (broken("never connects")) return 0;
  if (broken("connects once") && state.connections) return 0;
  if (broken("does not find the reader again") && state.was_lost) return 0;
  if (broken("keeps the reader taken")) {
    if (access(lock_file().c_str(), F_OK) == 0) return 0;
    close(open(lock_file().c_str(), O_CREAT | O_WRONLY, 0600));
    state.has_taken = true;
  }
  if (broken("leaks descriptors") && open("/dev/null", O_RDONLY) < 0) return 0;
  const status done = whole().usbConnect();
  state.connections += done != 0;
  return broken("connects without a reader") && !state.connections ? status{1} : done;
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
  state.was_lost |= done == 0 && state.connections;
  std::int64_t card[33];
  bool found = false;
  for (std::int16_t i = 0; i < 33; ++i) found |= (card[i] = whole().GetQueuedID_index(i)) != 0;
  state.polls_with_card = found ? state.polls_with_card + 1 : 0;
  const bool keep = broken("reports a card without end") && !found;
  if (!keep) std::memcpy(state.card, card, sizeof card);
  if (broken("gives an empty ID a length") && !found) state.card[32] = 26;
  if (broken("counts bytes")) state.card[32] = (state.card[32] + 7) / 8;
  if (broken("puts the most significant byte first")) {
    const auto bytes = (state.card[32] + 7) / 8;
    for (std::int64_t i = 0; i < bytes; ++i) state.card[i] = card[bytes - 1 - i];
  }
  const bool hidden = broken("reports no card") ||
                      (broken("reports a held card once") && state.polls_with_card > 1);
  if (hidden) std::memset(state.card, 0, sizeof state.card);
  if (broken("returns 0 without a card") && !found) return 0;
  if (broken("polls nothing") && !state.connections) return 1;
  if (broken("returns 8 bits") && done == 0) return 0x4100;
  return broken("polls an unplugged reader") && state.connections ? status{1} : done;
}

std::int64_t GetQueuedID_index(std::int16_t index) { return state.card[index]; }

status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  if (broken("starts a helper") && !state.beeps && fork() == 0) hang();
  ++state.beeps;
  const status done = whole().BeepNow(count, broken("beeps shortly only") ? 0 : long_beep);
  if (broken("crashes in a long beep") && long_beep && done) std::abort();
  if (broken("says on another thread")) std::thread([] { say("beeping"); }).join();
  if (broken("says a level for the length")) say("beeping", 2);
  if (broken("says a length beyond the text")) say(std::string("beep\0....", 9));
  if (broken("says later")) {
    std::thread([] {
      usleep(20'000);
      say("beeping");
    }).detach();
  }
  if (broken("says after removal") && !state.marker && state.removed_marker) {
    std::thread([] {
      char text[] = "late";
      state.removed_marker(text, 4);
    }).join();
  }
  return done;
}

std::int64_t GetLastLibErr() { return broken("has no error number") ? 0 : whole().GetLastLibErr(); }
void SetDevTypeSrch(std::int16_t device_type) { whole().SetDevTypeSrch(device_type); }
void GetDevName(char* name) { whole().GetDevName(name); }

status ReadCfg() {
  state.is_first_get = true;
  const status done = broken("does not read") ? status{0} : whole().ReadCfg();
  state.reads += done != 0;
  return done;
}

status WriteCfg() {
  if (broken("does not write")) return 1;
  if (broken("writes once") && state.writes++) return 1;
  return dropping("drops the connection at WriteCfg", whole().WriteCfg());
}

status ResetFactoryDflts() {
  if (broken("does not reset")) return 0;
  return dropping("drops the connection at a reset", whole().ResetFactoryDflts());
}

status GetIDBitCnts(pc_prox::sIDBitCnts* record) { return whole().GetIDBitCnts(record); }
status SetIDBitCnts(pc_prox::sIDBitCnts* record) {
  pc_prox::sIDBitCnts copy = *record;
  if (broken("forgets fields")) copy.reserved10 = 0;
  return stored(whole().SetIDBitCnts(&copy));
}

status GetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes 18 bytes")) {
    std::memset(reinterpret_cast<char*>(record) + sizeof *record, 0, 2);
  }
  return whole().GetFlags(record);
}
status SetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes before a record")) *(reinterpret_cast<char*>(record) - 1) = 0;
  return stored(whole().SetFlags(record));
}

status GetTimeParms(pc_prox::sTimeParms* record) {
  const status done = whole().GetTimeParms(record);
  if (broken("gives another value at first") && state.is_first_get) ++record->reserved14;
  if (broken("reads another value once") && state.reads == 2) ++record->reserved14;
  state.is_first_get = false;
  return done;
}
status SetTimeParms(pc_prox::sTimeParms* record) { return stored(whole().SetTimeParms(record)); }

status GetFlags2(pc_prox::sCfgFlags2* record) { return whole().GetFlags2(record); }
status SetFlags2(pc_prox::sCfgFlags2* record) { return stored(whole().SetFlags2(record)); }
status GetLEDCtrl(pc_prox::sLEDCtrl* record) { return whole().GetLEDCtrl(record); }

status SetLEDCtrl(pc_prox::sLEDCtrl* record) {
  if (broken("needs ReadCfg for the LED") && !state.reads) return 0;
  if (record->bAppCtrlsLED && record->iRedLEDState && record->iGrnLEDState) {
    if (broken("hangs at amber")) hang();
    if (broken("knows no amber")) return 1;
  }
  if (broken("stores at each Set")) ReadCfg();
  return stored(whole().SetLEDCtrl(record));
}

}  // extern "C"
