// The binding to the reader library: the one way from the agent into `pcProxAPI`, and the one
// header that names the library's functions.
//
// Status results are 0 for failure; no other value carries a meaning. The library is called on the
// main thread alone, and never while the output channel's lock is held, because any call may enter
// the log relay, which takes that lock.
#pragma once

#include <cstdint>

namespace pc_prox {

// The library's configuration records. The agent always provides 16 bytes, whatever the exact
// length the library uses. A field without a meaning for the agent is `reserved` and its offset in
// bytes; between a Get and the matching Set it keeps what the library put there.
using field = std::int16_t;

struct sIDBitCnts {
  field iLeadParityBitCnt;
  field iTrailParityBitCnt;
  field reserved4;
  field iTotalBitCnt;
  field reserved8, reserved10, reserved12, reserved14;
};

struct sCfgFlags {
  field reserved0;
  field bFrcBitCntEx;
  field reserved4, reserved6, reserved8, reserved10;
  field bSndOnRx;
  field bHaltKBSnd;
};

struct sTimeParms {
  field iBitStrmTO;
  field iIDHoldTO;
  field iIDLockOutTm;
  field reserved6, reserved8, reserved10, reserved12, reserved14;
};

struct sCfgFlags2 {
  field reserved0, reserved2;
  field bWiegInvData;
  field bUseInvDataF;
  field bRevWiegBits;
  field bBeepID;
  field bRevBytes;
  field reserved14;
};

struct sLEDCtrl {
  field bAppCtrlsLED;
  field iRedLEDState;
  field iGrnLEDState;
  field reserved6, reserved8, reserved10, reserved12;
  field reserved14;
};

static_assert(sizeof(sIDBitCnts) == 16 && sizeof(sCfgFlags) == 16 && sizeof(sTimeParms) == 16 &&
                  sizeof(sCfgFlags2) == 16 && sizeof(sLEDCtrl) == 16,
              "the library may write all 16 bytes of a record");

using status = std::int16_t;

// Receives `length` bytes of the library's diagnostic text; they need not end in a NUL.
using marker_function = void (*)(char* text, int length);

}  // namespace pc_prox

// The library itself. Its implementations include this header, so that the compiler compares
// the two sides' types.
extern "C" {
void SetMarkerFunction(pc_prox::marker_function);
pc_prox::status BeepNow(std::uint8_t count, std::int16_t long_beep);
std::int64_t GetLastLibErr();
pc_prox::status SetLEDCtrl(pc_prox::sLEDCtrl*);
pc_prox::status GetQueuedID(std::int16_t, std::int16_t);
std::int64_t GetQueuedID_index(std::int16_t index);
void USBDisconnect();
void SetDevTypeSrch(std::int16_t device_type);
pc_prox::status usbConnect();
const char* getPartNumberString();
void GetDevName(char* name);
pc_prox::status ReadCfg();
pc_prox::status GetIDBitCnts(pc_prox::sIDBitCnts*);
pc_prox::status SetIDBitCnts(pc_prox::sIDBitCnts*);
pc_prox::status GetFlags(pc_prox::sCfgFlags*);
pc_prox::status SetFlags(pc_prox::sCfgFlags*);
pc_prox::status GetTimeParms(pc_prox::sTimeParms*);
pc_prox::status SetTimeParms(pc_prox::sTimeParms*);
pc_prox::status GetFlags2(pc_prox::sCfgFlags2*);
pc_prox::status SetFlags2(pc_prox::sCfgFlags2*);
pc_prox::status GetLEDCtrl(pc_prox::sLEDCtrl*);
pc_prox::status WriteCfg();
pc_prox::status ResetFactoryDflts();
}

namespace pc_prox {

// Stateless: every member hands its arguments to the library function of the same name and returns
// that function's result. Any two instances behave the same.
class pc_prox_api {
 public:
  pc_prox_api() = default;
  // Installs the function that receives the library's diagnostic text; null removes it.
  void SetMarkerFunction(marker_function) const;
  // `long_beep`: 1 for long beeps, 0 for short ones.
  status BeepNow(std::uint8_t count, std::int16_t long_beep) const;
  // The error number of the last call that failed; ask before making another call.
  std::int64_t GetLastLibErr() const;
  status SetLEDCtrl(sLEDCtrl*) const;
  // Fetches the next card ID that the reader holds ready; the agent passes 1 and 0. Fails when the
  // reader is gone. A reader without a card succeeds, with an ID of all zeros.
  status GetQueuedID(std::int16_t, std::int16_t) const;
  // Of the ID fetched last: its byte `index` (0 to 31, the least significant first) in the low 8
  // bits of the result, or, for index 32, its length in bits.
  std::int64_t GetQueuedID_index(std::int16_t index) const;
  void USBDisconnect() const;
  void SetDevTypeSrch(std::int16_t device_type) const;
  status usbConnect() const;
  // Text owned by the library, valid until the next call, or null.
  const char* getPartNumberString() const;
  void GetDevName(char* name) const;
  // Loads the reader's configuration into the library, where the Get and Set operations work on it.
  status ReadCfg() const;
  status GetIDBitCnts(sIDBitCnts*) const;
  status SetIDBitCnts(sIDBitCnts*) const;
  status GetFlags(sCfgFlags*) const;
  status SetFlags(sCfgFlags*) const;
  status GetTimeParms(sTimeParms*) const;
  status SetTimeParms(sTimeParms*) const;
  status GetFlags2(sCfgFlags2*) const;
  status SetFlags2(sCfgFlags2*) const;
  status GetLEDCtrl(sLEDCtrl*) const;
  // Stores the library's configuration in the reader.
  status WriteCfg() const;
  status ResetFactoryDflts() const;
};

}  // namespace pc_prox
