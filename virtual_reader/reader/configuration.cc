#include "configuration.h"

#include <sstream>

namespace virtual_reader {

std::vector<std::string> to_text(const configuration& all, bool with_reserved) {
  std::istringstream names(
      "tsIDBitCnts iLeadParityBitCnt iTrailParityBitCnt - iTotalBitCnt - - - - "
      "tsCfgFlags - bFrcBitCntEx - - - - bSndOnRx bHaltKBSnd "
      "tsTimeParms iBitStrmTO iIDHoldTO iIDLockOutTm - - - - - "
      "tsCfgFlags2 - - bWiegInvData bUseInvDataF bRevWiegBits bBeepID bRevBytes - "
      "tsLEDCtrl bAppCtrlsLED iRedLEDState iGrnLEDState - - - - -");
  std::vector<std::string> lines;
  std::string type, name;
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i % 8 == 0) {
      names >> type;
      lines.emplace_back();
    }
    names >> name;
    if (name == "-" && !with_reserved) continue;
    if (name == "-") name = "reserved" + std::to_string(i % 8 * 2);
    if (!lines.back().empty()) lines.back() += ' ';
    lines.back() += type + "." + name + "=" + std::to_string(all[i]);
  }
  return lines;
}

}  // namespace virtual_reader
