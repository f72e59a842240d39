#include "configuration.h"

namespace virtual_reader {

namespace {

struct record_names {
  const char* name;
  std::array<const char*, 8> fields;  // none: reserved
};

const record_names names[] = {
    {"sIDBitCnts", {"iLeadParityBitCnt", "iTrailParityBitCnt", nullptr, "iTotalBitCnt"}},
    {"sCfgFlags",
     {nullptr, "bFrcBitCntEx", nullptr, nullptr, nullptr, nullptr, "bSndOnRx", "bHaltKBSnd"}},
    {"sTimeParms", {"iBitStrmTO", "iIDHoldTO", "iIDLockOutTm"}},
    {"sCfgFlags2",
     {nullptr, nullptr, "bWiegInvData", "bUseInvDataF", "bRevWiegBits", "bBeepID", "bRevBytes"}},
    {"sLEDCtrl", {"bAppCtrlsLED", "iRedLEDState", "iGrnLEDState"}},
};

}  // namespace

std::string to_text(const record& led) {
  if (led[0] == 0) return "own";
  if (led[1] != 0) return led[2] != 0 ? "amber" : "red";
  return led[2] != 0 ? "green" : "off";
}

std::vector<std::string> to_text(const configuration& all) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::string line = names[i].name;
    for (std::size_t j = 0; j < all[i].size(); ++j) {
      const char* const name = names[i].fields[j];
      line += ' ' + (name ? name : "reserved" + std::to_string(2 * j));
      line += '=' + std::to_string(all[i][j]);
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace virtual_reader
