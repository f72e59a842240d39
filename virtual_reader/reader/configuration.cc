#include "configuration.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace virtual_reader {

std::optional<std::size_t> record_of(const std::string& call) {
  static const std::map<std::string, std::size_t> places = {
      {"IDBitCnts", 0}, {"Flags", 8}, {"TimeParms", 16}, {"Flags2", 24}, {"LEDCtrl", led_record}};
  const auto place = places.find(call.substr(std::min<std::size_t>(3, call.size())));
  if (place == places.end()) return {};
  return place->second;
}

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
