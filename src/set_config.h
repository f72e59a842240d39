// The reader configuration command.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "card_reader_state.h"

// Changes the reader's configuration: each record that the batch names is read, changed in the
// fields named and written back whole, between one ReadCfg and one WriteCfg. Unknown types and
// names become log lines; a library call that fails ends the batch and names itself in the message.
struct set_config : action {
  // Setting name to value.
  using values_map = std::unordered_map<std::string, std::int32_t>;
  // Setting type, that is the record, to its values.
  using settings_map = std::unordered_map<std::string, values_map>;

  set_config(std::string_view target, settings_map batch)
      : action(target, false), settings(std::move(batch)) {}
  action_result execute_impl() override;

  settings_map settings;  // consumed by execute_impl

  // A library record while its settings are applied. The values left when it is destroyed were not
  // accepted for the record: each is reported in a log line.
  template <typename T>
  struct set_config_helper {
    explicit set_config_helper(std::string type) : type_name(std::move(type)) {}
    set_config_helper(const set_config_helper&) = delete;
    set_config_helper& operator=(const set_config_helper&) = delete;
    ~set_config_helper() { report_unexpected(type_name, values); }

    T record{};  // the library may write all of its 16 bytes
    values_map values;
    std::string type_name;
  };

 private:
  template <typename T>
  struct record_kind;

  static void report_unexpected(const std::string& type_name, const values_map& values);

  // Applies the batch's settings for one record. Returns the failed operation's name, or null.
  template <typename T>
  const char* apply(const record_kind<T>& kind);
};
