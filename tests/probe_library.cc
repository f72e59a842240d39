// A reader library that does nothing but tell which calls come in, and whether on the main thread:
// a line "NAME main" or "NAME other" each, appended to the file PROBE_LOG. PROBE_READER=1 attaches
// a reader without a card.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "pc_prox_api.h"

namespace {

// The library is loaded on the main thread.
const pthread_t main_thread = pthread_self();

pc_prox::status note(const char* name) {
  static const char* const path = std::getenv("PROBE_LOG");
  static const int log = path ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600) : -1;
  const char* const thread = pthread_equal(pthread_self(), main_thread) ? " main\n" : " other\n";
  const std::string line = std::string(name) + thread;
  return log >= 0 && write(log, line.data(), line.size()) < 0 ? 0 : 1;
}

pc_prox::status reader_attached() {
  static const char* const attached = std::getenv("PROBE_READER");
  return attached ? 1 : 0;
}

}  // namespace

#define EXPORT __attribute__((visibility("default")))

extern "C" {
EXPORT void SetMarkerFunction(pc_prox::marker_function f) {
  note(f ? "SetMarkerFunction" : "SetMarkerFunction null");
}
EXPORT pc_prox::status BeepNow(std::uint8_t, std::int16_t) { return note("BeepNow"); }
EXPORT std::int64_t GetLastLibErr() { return note("GetLastLibErr"); }
EXPORT pc_prox::status SetLEDCtrl(pc_prox::sLEDCtrl*) { return note("SetLEDCtrl"); }
EXPORT pc_prox::status GetLEDCtrl(pc_prox::sLEDCtrl*) { return note("GetLEDCtrl"); }
EXPORT pc_prox::status GetQueuedID(std::int16_t, std::int16_t) { return note("GetQueuedID"); }
EXPORT std::int64_t GetQueuedID_index(std::int16_t) { return 0; }
EXPORT void USBDisconnect() { note("USBDisconnect"); }
EXPORT void SetDevTypeSrch(std::int16_t) { note("SetDevTypeSrch"); }
EXPORT pc_prox::status usbConnect() {
  note("usbConnect");
  return reader_attached();
}
EXPORT const char* getPartNumberString() {
  note("getPartNumberString");
  return nullptr;
}
EXPORT void GetDevName(char*) { note("GetDevName"); }
EXPORT pc_prox::status ReadCfg() { return note("ReadCfg"); }
EXPORT pc_prox::status WriteCfg() { return note("WriteCfg"); }
EXPORT pc_prox::status GetIDBitCnts(pc_prox::sIDBitCnts*) { return note("GetIDBitCnts"); }
EXPORT pc_prox::status SetIDBitCnts(pc_prox::sIDBitCnts*) { return note("SetIDBitCnts"); }
EXPORT pc_prox::status GetFlags(pc_prox::sCfgFlags*) { return note("GetFlags"); }
EXPORT pc_prox::status SetFlags(pc_prox::sCfgFlags*) { return note("SetFlags"); }
EXPORT pc_prox::status GetTimeParms(pc_prox::sTimeParms*) { return note("GetTimeParms"); }
EXPORT pc_prox::status SetTimeParms(pc_prox::sTimeParms*) { return note("SetTimeParms"); }
EXPORT pc_prox::status GetFlags2(pc_prox::sCfgFlags2*) { return note("GetFlags2"); }
EXPORT pc_prox::status SetFlags2(pc_prox::sCfgFlags2*) { return note("SetFlags2"); }
EXPORT pc_prox::status ResetFactoryDflts() { return note("ResetFactoryDflts"); }
}
