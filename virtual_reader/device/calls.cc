#include "calls.h"

namespace virtual_reader {

// The defaults of fields without a known meaning differ from 0, so that it shows who loses them.
const std::array<record_kind, 5> record_kinds = {{
    {"sIDBitCnts",
     {"iLeadParityBitCnt", "iTrailParityBitCnt", "reserved4", "iTotalBitCnt", "reserved8",
      "reserved10", "reserved12", "reserved14"},
     {1, 1, 104, 26, 108, 110, 112, 114}},
    {"sCfgFlags",
     {"reserved0", "bFrcBitCntEx", "reserved4", "reserved6", "reserved8", "reserved10", "bSndOnRx",
      "bHaltKBSnd"},
     {200, 0, 204, 206, 208, 210, 1, 0}},
    {"sTimeParms",
     {"iBitStrmTO", "iIDHoldTO", "iIDLockOutTm", "reserved6", "reserved8", "reserved10",
      "reserved12", "reserved14"},
     {20, 1000, 1000, 306, 308, 310, 312, 314}},
    {"sCfgFlags2",
     {"reserved0", "reserved2", "bWiegInvData", "bUseInvDataF", "bRevWiegBits", "bBeepID",
      "bRevBytes", "reserved14"},
     {400, 402, 0, 0, 0, 1, 0, 414}},
    {"sLEDCtrl",
     {"bAppCtrlsLED", "iRedLEDState", "iGrnLEDState", "reserved6", "reserved8", "reserved10",
      "reserved12", "reserved14"},
     {0, 0, 0, 506, 508, 510, 512, 514}},
}};

configuration factory_defaults() {
  configuration all{};
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = record_kinds[i].factory_default;
  return all;
}

namespace {

// Get and Set of each record stand in the order of the records.
const call_kind kinds[] = {
    {"GetIDBitCnts", 0, 9, yields::status},
    {"SetIDBitCnts", 8, 1, yields::status},
    {"GetFlags", 0, 9, yields::status},
    {"SetFlags", 8, 1, yields::status},
    {"GetTimeParms", 0, 9, yields::status},
    {"SetTimeParms", 8, 1, yields::status},
    {"GetFlags2", 0, 9, yields::status},
    {"SetFlags2", 8, 1, yields::status},
    {"GetLEDCtrl", 0, 9, yields::status},
    {"SetLEDCtrl", 8, 1, yields::status},
    {"ReadCfg", 0, 0, yields::status},
    {"WriteCfg", 0, 41, yields::status},
    {"ResetFactoryDflts", 0, 0, yields::status},
    {"BeepNow", 2, 0, yields::status},
    {"GetQueuedID", 2, 0, yields::status},
    {"GetQueuedID_index", 1, 1, yields::number},
    {"GetLastLibErr", 0, 1, yields::number},
    {"usbConnect", 0, 0, yields::status},
    {"USBDisconnect", 0, 0, yields::nothing},
    {"SetDevTypeSrch", 1, 0, yields::nothing},
    {"SetMarkerFunction", 1, 0, yields::nothing},
    {"getPartNumberString", 0, 0, yields::text},
    {"GetDevName", 0, 0, yields::text},
};

}  // namespace

const call_kind* find_call(const std::string& name) {
  for (const call_kind& kind : kinds) {
    if (kind.name == name) return &kind;
  }
  return nullptr;
}

std::string call_names(bool that_can_fail) {
  std::string names;
  for (const call_kind& kind : kinds) {
    if (that_can_fail && kind.result != yields::status && kind.result != yields::text) continue;
    names.append(names.empty() ? 0 : 1, ' ').append(kind.name);
  }
  return names;
}

}  // namespace virtual_reader
