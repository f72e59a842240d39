#include "configuration.h"

#include <sstream>

namespace virtual_reader {

std::vector<std::string> to_text(const configuration& all) {
  std::istringstream names(
      "sIDBitCnts iLeadParityBitCnt iTrailParityBitCnt reserved4 iTotalBitCnt "
      "reserved8 reserved10 reserved12 reserved14 "
      "sCfgFlags reserved0 bFrcBitCntEx reserved4 reserved6 reserved8 reserved10 "
      "bSndOnRx bHaltKBSnd "
      "sTimeParms iBitStrmTO iIDHoldTO iIDLockOutTm reserved6 reserved8 reserved10 "
      "reserved12 reserved14 "
      "sCfgFlags2 reserved0 reserved2 bWiegInvData bUseInvDataF bRevWiegBits bBeepID bRevBytes "
      "reserved14 "
      "sLEDCtrl bAppCtrlsLED iRedLEDState iGrnLEDState reserved6 reserved8 reserved10 "
      "reserved12 reserved14");
  std::vector<std::string> lines;
  std::string name;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i % 8 == 0) lines.emplace_back(names >> name ? name : "");
    names >> name;
    lines.back() += " " + name + "=" + std::to_string(all[i]);
  }
  return lines;
}

}  // namespace virtual_reader
