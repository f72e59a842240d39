// A reader library that costs as good as nothing, so that what is measured is the agent's own.
// Without a device page it has no reader.
#include <chrono>

#include "device.h"
#include "pc_prox_api.h"

using namespace pc_prox;

namespace {

device* const page = open_device();
bool card_ready = false;

}  // namespace

void SetMarkerFunction(marker_function) {}
std::int64_t GetLastLibErr() { return 0; }
void USBDisconnect() {}
void SetDevTypeSrch(std::int16_t) {}
status usbConnect() { return page && page->attached; }
const char* getPartNumberString() { return "BENCH"; }
void GetDevName(char*) {}

status GetQueuedID(std::int16_t, std::int16_t) {
  card_ready = page->card.exchange(0) != 0;
  if (card_ready) page->found_at = std::chrono::steady_clock::now().time_since_epoch().count();
  ++page->polls;
  return 1;
}

std::int64_t GetQueuedID_index(std::int16_t index) {
  if (!card_ready) return 0;
  return index == 32 ? 26 : 0x11;
}

status BeepNow(std::uint8_t, std::int16_t) {
  page->busy = 1;
  return sem_wait(&page->release) == 0;
}

status SetLEDCtrl(sLEDCtrl*) { return 1; }
status GetLEDCtrl(sLEDCtrl*) { return 1; }
status ReadCfg() { return 1; }
status WriteCfg() { return 1; }
status GetIDBitCnts(sIDBitCnts*) { return 1; }
status SetIDBitCnts(sIDBitCnts*) { return 1; }
status GetFlags(sCfgFlags*) { return 1; }
status SetFlags(sCfgFlags*) { return 1; }
status GetTimeParms(sTimeParms*) { return 1; }
status SetTimeParms(sTimeParms*) { return 1; }
status GetFlags2(sCfgFlags2*) { return 1; }
status SetFlags2(sCfgFlags2*) { return 1; }
status ResetFactoryDflts() { return 1; }
