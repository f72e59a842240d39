#include "set_config.h"

#include "globals.h"

// One of the library's records: how commands, the library and the agent name its parts.
template <typename T>
struct set_config::record_kind {
  struct named_field {
    const char* name;
    pc_prox::field T::*place;
  };
  using operation = pc_prox::status (pc_prox::pc_prox_api::*)(T*) const;

  const char* type_name;
  operation get;
  const char* get_name;
  operation set;
  const char* set_name;
  named_field fields[5];  // those left have no name
};

void set_config::report_unexpected(const std::string& type_name, const values_map& values) {
  for (const auto& [name, value] : values) {
    globals::out_state().push_line("Log: Ignoring unexpected setting " + type_name + "." + name +
                                   "=" + std::to_string(value));
  }
}

template <typename T>
const char* set_config::apply(const record_kind<T>& kind) {
  const auto batch = settings.find(kind.type_name);
  if (batch == settings.end()) return nullptr;
  set_config_helper<T> helper(kind.type_name);
  helper.values = std::move(batch->second);
  settings.erase(batch);
  if (helper.values.empty()) return nullptr;

  const pc_prox::pc_prox_api& api = globals::api();
  if ((api.*kind.get)(&helper.record) == 0) {
    helper.values.clear();  // a record that failed as a whole reports no setting
    return kind.get_name;
  }
  for (const auto& field : kind.fields) {
    if (!field.name) continue;
    const auto found = helper.values.find(field.name);
    if (found == helper.values.end()) continue;
    helper.record.*field.place = static_cast<pc_prox::field>(found->second);  // the low 16 bits
    helper.values.erase(found);
  }
  if ((api.*kind.set)(&helper.record) == 0) {
    helper.values.clear();
    return kind.set_name;
  }
  return nullptr;
}

action_result set_config::execute_impl() {
  using namespace pc_prox;
  using binding = pc_prox_api;
  if (globals::api().ReadCfg() == 0) return {false, "Failed to read reader config"};

  static constexpr record_kind<sIDBitCnts> id_bit_counts = {
      "tsIDBitCnts",
      &binding::GetIDBitCnts,
      "GetIDBitCnts",
      &binding::SetIDBitCnts,
      "SetIDBitCnts",
      {{"iLeadParityBitCnt", &sIDBitCnts::iLeadParityBitCnt},
       {"iTrailParityBitCnt", &sIDBitCnts::iTrailParityBitCnt},
       {"iTotalBitCnt", &sIDBitCnts::iTotalBitCnt}}};
  static constexpr record_kind<sCfgFlags> flags = {"tsCfgFlags",
                                                   &binding::GetFlags,
                                                   "GetFlags",
                                                   &binding::SetFlags,
                                                   "SetFlags",
                                                   {{"bFrcBitCntEx", &sCfgFlags::bFrcBitCntEx},
                                                    {"bSndOnRx", &sCfgFlags::bSndOnRx},
                                                    {"bHaltKBSnd", &sCfgFlags::bHaltKBSnd}}};
  static constexpr record_kind<sTimeParms> time_parameters = {
      "tsTimeParms",
      &binding::GetTimeParms,
      "GetTimeParms",
      &binding::SetTimeParms,
      "SetTimeParms",
      {{"iBitStrmTO", &sTimeParms::iBitStrmTO},
       {"iIDHoldTO", &sTimeParms::iIDHoldTO},
       {"iIDLockOutTm", &sTimeParms::iIDLockOutTm}}};
  static constexpr record_kind<sCfgFlags2> flags_2 = {"tsCfgFlags2",
                                                      &binding::GetFlags2,
                                                      "GetFlags2",
                                                      &binding::SetFlags2,
                                                      "SetFlags2",
                                                      {{"bWiegInvData", &sCfgFlags2::bWiegInvData},
                                                       {"bUseInvDataF", &sCfgFlags2::bUseInvDataF},
                                                       {"bRevWiegBits", &sCfgFlags2::bRevWiegBits},
                                                       {"bBeepID", &sCfgFlags2::bBeepID},
                                                       {"bRevBytes", &sCfgFlags2::bRevBytes}}};
  static constexpr record_kind<sLEDCtrl> led_control = {
      "tsLEDCtrl",
      &binding::GetLEDCtrl,
      "GetLEDCtrl",
      &binding::SetLEDCtrl,
      "SetLEDCtrl",
      {{"bAppCtrlsLED", &sLEDCtrl::bAppCtrlsLED},
       {"iRedLEDState", &sLEDCtrl::iRedLEDState},
       {"iGrnLEDState", &sLEDCtrl::iGrnLEDState}}};

  const char* failed = apply(id_bit_counts);
  if (!failed) failed = apply(flags);
  if (!failed) failed = apply(time_parameters);
  if (!failed) failed = apply(flags_2);
  if (!failed) failed = apply(led_control);
  if (failed) {
    return {false, std::string("Call to ") + failed + " failed; settings will not be set"};
  }

  for (const auto& [type, values] : settings) {
    globals::out_state().push_line("Log: Ignoring unexpected setting type " + type);
  }
  if (globals::api().WriteCfg() == 0) return {false, "Failed to write reader config"};
  return {true, {}};
}
