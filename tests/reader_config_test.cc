// The reader configuration command: its library calls, its log lines and its answer.
#include <gtest/gtest.h>

#include <algorithm>

#include "bench.h"

namespace {

using lines = std::vector<std::string>;

// Name and result of each call; what the records hold is the virtual reader's own to tell.
lines names_of(const lines& calls) {
  lines names;
  for (const std::string& call : calls) names.push_back(call.substr(0, call.find(' ')));
  return names;
}

lines lines_up_to_answer(agent_process& agent) {
  lines all;
  do {
    all.push_back(agent.next_line_but_cards());
  } while (all.back()[0] == 'L');
  return all;
}

const lines all_calls = {"ReadCfg",   "GetIDBitCnts", "SetIDBitCnts", "GetFlags",
                         "SetFlags",  "GetTimeParms", "SetTimeParms", "GetFlags2",
                         "SetFlags2", "GetLEDCtrl",   "SetLEDCtrl",   "WriteCfg"};

// Batches name the records against their order, and one unknown name and type.
const char all_records[] =
    ":ReaderConfig tsLEDCtrl.iRedLEDState=1 tsCfgFlags2.bBeepID=1 tsTimeParms.iBitStrmTO=9 "
    "tsCfgFlags.bSndOnRx=1 tsIDBitCnts.iTotalBitCnt=26 tsIDBitCnts.x=-7 other.y=1";

const char name_log[] = "Log: Ignoring unexpected setting tsIDBitCnts.x=-7";
const char type_log[] = "Log: Ignoring unexpected setting type other";

TEST(ReaderConfig, StopsAtTheFirstCallThatFails) {
  bench b;
  const std::string name = b.await_reader();
  EXPECT_EQ(b.agent->next_line(), "Log: Reader part number is 'VR-1'");
  for (std::size_t failing = 0; failing <= all_calls.size(); ++failing) {
    lines expected_calls = all_calls;
    lines expected = {name_log, type_log, "Ok:"};
    if (failing < all_calls.size()) {
      const std::string& call = all_calls[failing];
      b.run("fail " + call);
      expected_calls.resize(failing + 1);
      expected.clear();
      if (failing > 2) expected.push_back(name_log);
      if (call == "WriteCfg") expected.push_back(type_log);
      expected.push_back(call == "ReadCfg" ? "Error: Failed to read reader config"
                         : call == "WriteCfg"
                             ? "Error: Failed to write reader config"
                             : "Error: Call to " + call + " failed; settings will not be set");
    }
    b.calls_but_polls();
    b.agent->send_line(name + all_records);
    EXPECT_EQ(lines_up_to_answer(*b.agent), expected);
    EXPECT_EQ(names_of(b.calls_but_polls()), expected_calls);
  }
}

TEST(ReaderConfig, ChangesTheNamedFieldsAndNothingElse) {
  bench b;
  const std::string name = b.await_reader();
  b.agent->next_line();
  const struct {
    std::string type, get, set;
    std::vector<std::pair<std::string, std::size_t>> fields;  // and their places in the record
  } records[] = {
      {"tsIDBitCnts",
       "GetIDBitCnts",
       "SetIDBitCnts",
       {{"iLeadParityBitCnt", 0}, {"iTrailParityBitCnt", 1}, {"iTotalBitCnt", 3}}},
      {"tsCfgFlags",
       "GetFlags",
       "SetFlags",
       {{"bFrcBitCntEx", 1}, {"bSndOnRx", 6}, {"bHaltKBSnd", 7}}},
      {"tsTimeParms",
       "GetTimeParms",
       "SetTimeParms",
       {{"iBitStrmTO", 0}, {"iIDHoldTO", 1}, {"iIDLockOutTm", 2}}},
      {"tsCfgFlags2",
       "GetFlags2",
       "SetFlags2",
       {{"bWiegInvData", 2},
        {"bUseInvDataF", 3},
        {"bRevWiegBits", 4},
        {"bBeepID", 5},
        {"bRevBytes", 6}}},
      {"tsLEDCtrl",
       "GetLEDCtrl",
       "SetLEDCtrl",
       {{"bAppCtrlsLED", 0}, {"iRedLEDState", 1}, {"iGrnLEDState", 2}}},
  };
  // Values, and what 16 bits make of them.
  const std::pair<int, int> values[] = {{70000, 4464}, {-1, -1}, {2, 2}, {65537, 1}, {0, 0}};
  std::size_t turn = 0;
  for (const auto& record : records) {
    for (const auto& [field, place] : record.fields) {
      const auto [value, stored] = values[turn++ % 5];
      b.calls_but_polls();
      const std::string setting = record.type + "." + field + "=" + std::to_string(value);
      EXPECT_EQ(b.agent->ask(name + ":ReaderConfig " + setting), "Ok:") << setting;
      const lines calls = b.calls_but_polls();
      ASSERT_EQ(names_of(calls), (lines{"ReadCfg", record.get, record.set, "WriteCfg"}));
      // "GetX -> 1 F0 F1 ..." gives the record as it was, "SetX F0 F1 ... -> 1" as it became.
      const auto fields_of = [](const std::string& text) {
        lines words;
        std::string word;
        for (const char c : text + " ") {
          if (c != ' ')
            word += c;
          else if (!word.empty())
            words.push_back(std::move(word)), word.clear();
        }
        words.erase(std::remove(words.begin(), words.end(), "->"), words.end());
        words.erase(words.begin());
        return words;
      };
      lines before = fields_of(calls[1]);
      lines after = fields_of(calls[2]);
      ASSERT_EQ(before.size(), 9u) << calls[1];
      before.erase(before.begin());
      after.pop_back();
      before[place] = std::to_string(stored);
      EXPECT_EQ(after, before) << setting;
    }
  }
}

TEST(ReaderConfig, ReportsWhatItDoesNotKnow) {
  bench b;
  const std::string name = b.await_reader();
  b.agent->next_line();
  const struct {
    std::string arguments;
    lines calls, output;
  } rows[] = {
      {"", {"ReadCfg", "WriteCfg"}, {"Ok:"}},
      {" tsTimeParms.bBeepID=1",
       {"ReadCfg", "GetTimeParms", "SetTimeParms", "WriteCfg"},
       {"Log: Ignoring unexpected setting tsTimeParms.bBeepID=1", "Ok:"}},
      {" tsidbitcnts.iTotalBitCnt=1",
       {"ReadCfg", "WriteCfg"},
       {"Log: Ignoring unexpected setting type tsidbitcnts", "Ok:"}},
      {" tsLEDCtrl.iredledstate=-2147483648",
       {"ReadCfg", "GetLEDCtrl", "SetLEDCtrl", "WriteCfg"},
       {"Log: Ignoring unexpected setting tsLEDCtrl.iredledstate=-2147483648", "Ok:"}},
      {" tsLEDCtrl.iRedLEDState=1 bad", {}, {"Error: Could not get setting name from 'bad'"}},
  };
  for (const auto& row : rows) {
    b.calls_but_polls();
    b.agent->send_line(name + ":ReaderConfig" + row.arguments);
    EXPECT_EQ(lines_up_to_answer(*b.agent), row.output) << row.arguments;
    EXPECT_EQ(names_of(b.calls_but_polls()), row.calls) << row.arguments;
  }
}

}  // namespace
