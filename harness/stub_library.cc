// A reader library that does nothing but what the stub reader asks for, so that what is measured is
// the agent's own. Two others are made of it: with PRINTS, one that prints on standard output in
// every way there is, and with LACKS_ONE, one without a function that the agent never calls.
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#ifdef PRINTS
#include <cstdio>
#include <iostream>
#endif

#include "pc_prox_api.h"
#include "stub_reader.h"

using namespace pc_prox;

namespace {

stub_reader* reader_from_environment() {
  const char* const path = std::getenv(stub_reader_variable);
  return path ? map_stub_reader(path) : nullptr;
}

stub_reader* const reader = reader_from_environment();
const pthread_t main_thread = pthread_self();  // which loads the library
bool heard = false;
bool card_ready = false;

#ifdef PRINTS
void print() {
  std::printf("printf\n");
  std::cout << "stream" << std::endl;
  if (write(STDOUT_FILENO, "bare\n", 5) < 0) return;
  // What a child process of the library may come to hold.
  if (std::system("for n in 3 4 5 6; do eval \"echo child >&$n\"; done 2>/dev/null") != 0) return;
}
#endif

// Returns a success, which may be any status but 0.
status note() {
#ifdef PRINTS
  print();
#endif
  if (!reader) return -1;
  if (!pthread_equal(pthread_self(), main_thread)) ++reader->calls_off_main;
  if (!heard) ++reader->calls_unheard;
  return -1;
}

}  // namespace

void SetMarkerFunction(marker_function function) {
  heard = true;
  note();
  heard = function != nullptr;
  if (reader && !heard) ++reader->removals;
}

status usbConnect() {
  const status success = note();
  return reader && reader->attached ? success : status{0};
}

const char* getPartNumberString() { return note() ? "STUB" : nullptr; }

status GetQueuedID(std::int16_t, std::int16_t) {
  card_ready = reader->card.exchange(0) != 0;
  if (card_ready) reader->found_at = std::chrono::steady_clock::now().time_since_epoch().count();
  ++reader->polls;
  return note();
}

std::int64_t GetQueuedID_index(std::int16_t index) {
  if (!note() || !card_ready) return 0;
  return index == 32 ? 26 : 0x11;
}

status BeepNow(std::uint8_t, std::int16_t) {
  reader->beeping = 1;
  while (reader->beeps_held) usleep(1000);
  return note();
}

std::int64_t GetLastLibErr() { return note(); }
void USBDisconnect() { note(); }
void SetDevTypeSrch(std::int16_t) { note(); }
#ifndef LACKS_ONE
void GetDevName(char*) { note(); }
#endif
status SetLEDCtrl(sLEDCtrl* record) {
  field fields[8];
  std::memcpy(fields, record, sizeof fields);
  int set = 0;
  for (int i = 0; i < 8; ++i) set |= (fields[i] != 0) << i;
  if (reader) reader->led_fields_set = set;
  return note();
}
status GetLEDCtrl(sLEDCtrl*) { return note(); }
// The agent's later calls find no zeros on the stack by chance.
status ReadCfg() {
  volatile char used[4096];
  for (volatile char& byte : used) byte = 0x5A;
  return note();
}
status WriteCfg() { return note(); }
status GetIDBitCnts(sIDBitCnts*) { return note(); }
status SetIDBitCnts(sIDBitCnts*) { return note(); }
status GetFlags(sCfgFlags*) { return note(); }
status SetFlags(sCfgFlags*) { return note(); }
status GetTimeParms(sTimeParms*) { return note(); }
status SetTimeParms(sTimeParms*) { return note(); }
status GetFlags2(sCfgFlags2*) { return note(); }
status SetFlags2(sCfgFlags2*) { return note(); }
status ResetFactoryDflts() { return note(); }
