#include "pc_prox_api.h"

namespace pc_prox {

void pc_prox_api::SetMarkerFunction(marker_function function) const {
  ::SetMarkerFunction(function);
}
status pc_prox_api::BeepNow(std::uint8_t count, std::int16_t long_beep) const {
  return ::BeepNow(count, long_beep);
}
std::int64_t pc_prox_api::GetLastLibErr() const { return ::GetLastLibErr(); }
status pc_prox_api::SetLEDCtrl(sLEDCtrl* record) const { return ::SetLEDCtrl(record); }
status pc_prox_api::GetQueuedID(std::int16_t first, std::int16_t second) const {
  return ::GetQueuedID(first, second);
}
std::int64_t pc_prox_api::GetQueuedID_index(std::int16_t index) const {
  return ::GetQueuedID_index(index);
}
void pc_prox_api::USBDisconnect() const { ::USBDisconnect(); }
void pc_prox_api::SetDevTypeSrch(std::int16_t device_type) const { ::SetDevTypeSrch(device_type); }
status pc_prox_api::usbConnect() const { return ::usbConnect(); }
const char* pc_prox_api::getPartNumberString() const { return ::getPartNumberString(); }
void pc_prox_api::GetDevName(char* name) const { ::GetDevName(name); }
status pc_prox_api::ReadCfg() const { return ::ReadCfg(); }
status pc_prox_api::GetIDBitCnts(sIDBitCnts* record) const { return ::GetIDBitCnts(record); }
status pc_prox_api::SetIDBitCnts(sIDBitCnts* record) const { return ::SetIDBitCnts(record); }
status pc_prox_api::GetFlags(sCfgFlags* record) const { return ::GetFlags(record); }
status pc_prox_api::SetFlags(sCfgFlags* record) const { return ::SetFlags(record); }
status pc_prox_api::GetTimeParms(sTimeParms* record) const { return ::GetTimeParms(record); }
status pc_prox_api::SetTimeParms(sTimeParms* record) const { return ::SetTimeParms(record); }
status pc_prox_api::GetFlags2(sCfgFlags2* record) const { return ::GetFlags2(record); }
status pc_prox_api::SetFlags2(sCfgFlags2* record) const { return ::SetFlags2(record); }
status pc_prox_api::GetLEDCtrl(sLEDCtrl* record) const { return ::GetLEDCtrl(record); }
status pc_prox_api::WriteCfg() const { return ::WriteCfg(); }
status pc_prox_api::ResetFactoryDflts() const { return ::ResetFactoryDflts(); }

}  // namespace pc_prox
