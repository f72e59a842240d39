#include "configuration.h"

#include <sstream>

namespace virtual_reader {

std::vector<std::string> to_text(const configuration& all) {
  std::istringstream names(
      "sIDBitCnts iLeadParityBitCnt iTrailParityBitCnt - iTotalBitCnt - - - - "
      "sCfgFlags - bFrcBitCntEx - - - - bSndOnRx bHaltKBSnd "
      "sTimeParms iBitStrmTO iIDHoldTO iIDLockOutTm - - - - - "
      "sCfgFlags2 - - bWiegInvData bUseInvDataF bRevWiegBits bBeepID bRevBytes - "
      "sLEDCtrl bAppCtrlsLED iRedLEDState iGrnLEDState - - - - -");
  std::vector<std::string> lines;
  std::string name;
  for (std::size_t i = 0; i < all.size(); ++i) {
    names >> name;
    if (i % 8 == 0) {
      lines.push_back(name);
      names >> name;
    }
    if (name == "-") name = "reserved" + std::to_string(i % 8 * 2);
    lines.back() += " " + name + "=" + std::to_string(all[i]);
  }
  return lines;
}

}  // namespace virtual_reader
