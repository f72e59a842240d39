// A reader library that keeps what the agent expects of one, but for the one fault that the
// environment variable BROKEN names. The rest is the library's at WHOLE_LIBRARY.
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
  return chosen == fault;
}

void hang() {
  for (;;) pause();
}

struct {
  pc_prox::marker_function marker, marker_removed;
  int connections, polls_with_card, reads, writes;
  bool disconnected_before, was_lost, first_get;
  std::int64_t card[33];
  char part_number[100];
} now;

struct farewell {
  const bool prints = broken("prints at its end");
  ~farewell() {
    if (prints) std::printf("the end\n");
  }
} farewell;

void say(std::string text) {
  if (now.marker) now.marker(text.data(), static_cast<int>(text.size()));
}

template <typename T>
status forgetful_set(status (*set)(T*), T record) {
  if (broken("forgets fields")) record.reserved10 = 0;
  return set(&record);
}

}  // namespace

extern "C" {

void SetMarkerFunction(pc_prox::marker_function function) {
  if (broken("crashes when the marker function is set again") && now.marker_removed) std::abort();
  if (!function) now.marker_removed = now.marker;
  now.marker = function;
  whole().SetMarkerFunction(function);
}

void USBDisconnect() {
  if (broken("hangs when disconnected twice") && now.disconnected_before && !now.connections) {
    hang();
  }
  now.disconnected_before = true;
  whole().USBDisconnect();
}

status usbConnect() {
  now.disconnected_before = false;
  if (broken("prints")) std::printf("connecting\n");
  if (broken("never connects")) return 0;
  if (broken("connects once") && now.connections) return 0;
  if (broken("does not find the reader again") && now.was_lost) return 0;
  const status done = whole().usbConnect();
  now.connections += done != 0;
  return broken("connects nothing") && !now.connections ? status{1} : done;
}

const char* getPartNumberString() {
  const char* const text = whole().getPartNumberString();
  if (!broken("lets the part number fade") || !text) return text;
  std::strncpy(now.part_number, text, sizeof now.part_number - 1);
  std::thread([] {
    usleep(50'000);
    now.part_number[0] = '-';
  }).detach();
  return now.part_number;
}

status GetQueuedID(std::int16_t first, std::int16_t second) {
  if (broken("polls slowly")) usleep(260'000);
  const status done = whole().GetQueuedID(first, second);
  now.was_lost |= done == 0 && now.connections;
  std::int64_t card[33];
  bool found = false;
  for (std::int16_t i = 0; i < 33; ++i) found |= (card[i] = whole().GetQueuedID_index(i)) != 0;
  now.polls_with_card = found ? now.polls_with_card + 1 : 0;
  const bool keep = broken("reports a card without end") && !found;
  if (!keep) std::memcpy(now.card, card, sizeof card);
  if (broken("gives an empty ID a length") && !found) now.card[32] = 26;
  const bool hidden =
      broken("reports no card") || (broken("reports a held card once") && now.polls_with_card > 1);
  if (hidden) std::memset(now.card, 0, sizeof now.card);
  if (broken("polls nothing") && !now.connections) return 1;
  return broken("polls a reader that has gone") && now.connections ? status{1} : done;
}

std::int64_t GetQueuedID_index(std::int16_t index) { return now.card[index]; }

status BeepNow(std::uint8_t count, std::int16_t long_beep) {
  const status done = whole().BeepNow(count, broken("beeps shortly only") ? 0 : long_beep);
  if (broken("crashes in a long beep") && long_beep && done) std::abort();
  if (broken("says on another thread")) std::thread([] { say("beeping"); }).join();
  if (broken("says later")) {
    std::thread([] {
      usleep(20'000);
      say("beeping");
    }).detach();
  }
  if (broken("says after removal") && !now.marker && now.marker_removed) {
    std::thread([] {
      char text[] = "late";
      now.marker_removed(text, 4);
    }).join();
  }
  return done;
}

std::int64_t GetLastLibErr() { return broken("has no error number") ? 0 : whole().GetLastLibErr(); }

void SetDevTypeSrch(std::int16_t device_type) { whole().SetDevTypeSrch(device_type); }
#ifndef LACKING
void GetDevName(char* name) { whole().GetDevName(name); }
#endif

status ReadCfg() {
  now.first_get = true;
  const status done = broken("does not read") ? status{0} : whole().ReadCfg();
  now.reads += done != 0;
  return done;
}

status WriteCfg() {
  if (broken("does not write")) return 1;
  return broken("writes once") && now.writes++ ? status{1} : whole().WriteCfg();
}

status ResetFactoryDflts() {
  if (broken("does not reset")) return 0;
  return broken("writes once") ? status{1} : whole().ResetFactoryDflts();
}

status GetIDBitCnts(pc_prox::sIDBitCnts* record) { return whole().GetIDBitCnts(record); }
status SetIDBitCnts(pc_prox::sIDBitCnts* record) {
  return forgetful_set(whole().SetIDBitCnts, *record);
}

status GetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes 18 bytes")) {
    std::memset(reinterpret_cast<char*>(record) + sizeof *record, 0, 2);
  }
  return whole().GetFlags(record);
}
status SetFlags(pc_prox::sCfgFlags* record) {
  if (broken("writes before a record")) *(reinterpret_cast<char*>(record) - 1) = 0;
  return whole().SetFlags(record);
}

status GetTimeParms(pc_prox::sTimeParms* record) {
  const status done = whole().GetTimeParms(record);
  if (broken("gives another value at first") && now.first_get) ++record->reserved14;
  if (broken("reads another value for once") && now.reads == 2) ++record->reserved14;
  now.first_get = false;
  return done;
}
status SetTimeParms(pc_prox::sTimeParms* record) { return whole().SetTimeParms(record); }

status GetFlags2(pc_prox::sCfgFlags2* record) { return whole().GetFlags2(record); }
status SetFlags2(pc_prox::sCfgFlags2* record) { return whole().SetFlags2(record); }
status GetLEDCtrl(pc_prox::sLEDCtrl* record) { return whole().GetLEDCtrl(record); }

status SetLEDCtrl(pc_prox::sLEDCtrl* record) {
  if (record->bAppCtrlsLED && record->iRedLEDState && record->iGrnLEDState) {
    if (broken("hangs at amber")) hang();
    if (broken("knows no amber")) return 1;
  }
  return whole().SetLEDCtrl(record);
}

}  // extern "C"
