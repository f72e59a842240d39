// One session that uses everything, run once for each of its library calls with that call failing,
// with the reader torn away during it, and with it slow.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <thread>

#include "rig.h"

namespace {

using lines = std::vector<std::string>;
using virtual_reader::fault;

const agent_process::environment quick = {{"SEARCH_MS", "2"}, {"POLL_MS", "2"}};

// Any line that the agent may write in this session.
const std::regex known_line(
    R"(Ok:|Ok:  \d+|Card: (3AB1234|EE)|Reader: (Global|Dev\d+(-VR-1)?)|Log: Reader part number is 'VR-1'|)"
    R"(Log: Ignoring unexpected setting tsLEDCtrl\.x=1|Log: Ignoring unexpected setting type y|)"
    R"(Error: (Beeping|Setting LED state|Clearing LED state|Resetting card reader) failed with error \d+|)"
    R"(Error: Call to [GS]et\w+ failed; settings will not be set|)"
    R"(Error: Failed to (read|write) reader config|)"
    R"(Error: Action was for reader Dev\S+, but (there is no reader attached|the current reader is Dev\S+))");

class session {
 public:
  // With a fault, or none for the call "".
  explicit session(const fault& injected)
      : is_whole(injected.call.empty()),
        r({"card queue 3AB1234/26"}, QUICK_AGENT, quick, injected) {}

  // Plays the session and returns the library calls that it made.
  lines play() {
    name = find_reader();
    command("Beep short 2");
    command("SetLED amber");
    command("ClearLED");
    command(
        "ReaderConfig tsIDBitCnts.iTotalBitCnt=26 tsCfgFlags.bSndOnRx=1 "
        "tsTimeParms.iIDHoldTO=5 tsCfgFlags2.bBeepID=1 tsLEDCtrl.iRedLEDState=1 "
        "tsLEDCtrl.x=1 y.z=1");
    command("ResetConfig");
    r.run("card queue EE");
    r.run("unplug");
    r.run("plug");
    name = find_reader();
    command("Beep long 1");
    r.agent->close_input();
    const auto closed = std::chrono::steady_clock::now();
    for (const std::string& line : r.agent->remaining_lines()) check(line);
    EXPECT_EQ(r.agent->wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - closed, std::chrono::seconds(1));
    EXPECT_EQ(r.reader.read([](const auto& reader) { return reader.faults.list().size(); }), 0u)
        << "the fault never came up";
    return r.calls();
  }

 private:
  static void check(const std::string& line) {
    EXPECT_TRUE(std::regex_match(line, known_line)) << line;
  }

  std::string next_line() {
    std::string line = r.agent->next_line();
    check(line);
    if (line.rfind("Reader: ", 0) == 0) attached = line.substr(8);
    return line;
  }

  // Pings until a reader is there: plugged in anew when the fault has torn it away.
  std::string find_reader() {
    attached = "Global";
    for (int tries = 0; attached == "Global" && tries < 5000; ++tries) {
      if (tries % 50 == 0) r.run("plug");
      ping();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return attached;
  }

  void ping() {
    r.agent->send_line("Global:Ping " + std::to_string(++pings));
    EXPECT_EQ(next_answer(), "Ok:  " + std::to_string(pings));
  }

  // A command and two pings: three answers, in order.
  void command(const std::string& text) {
    r.agent->send_line(name + ":" + text);
    const std::string answer = next_answer();
    EXPECT_TRUE(answer == "Ok:" || !is_whole) << text << ": " << answer;
    ping();
    ping();
  }

  std::string next_answer() {
    for (;;) {
      std::string line = next_line();
      if (line[0] == 'O' || line[0] == 'E' || line[0] == '(') return line;
    }
  }

  const bool is_whole;  // nothing fails
  rig r;
  std::string name;      // that commands are sent to
  std::string attached;  // as last announced
  int pings = 0;
};

// Name and occurrence of every call of a session, the polls' repetitions left out.
std::vector<std::pair<std::string, std::uint64_t>> calls_to_fault() {
  std::vector<std::pair<std::string, std::uint64_t>> chosen;
  std::map<std::string, std::uint64_t> seen;
  for (const std::string& call : session(fault{}).play()) {
    const std::string name = call.substr(0, call.find(' '));
    if (++seen[name] <= 3) chosen.emplace_back(name, seen[name]);
  }
  return chosen;
}

TEST(FaultSweep, EveryCommandIsAnsweredWhateverCallFails) {
  const auto calls = calls_to_fault();
  ASSERT_GE(calls.size(), 30u);
  for (const auto& [name, occurrence] : calls) {
    for (const fault::kind kind : {fault::kind::fail, fault::kind::vanish, fault::kind::delay}) {
      fault injected{};
      injected.what = kind;
      injected.call = name;
      injected.first = injected.last = occurrence;
      injected.time = std::chrono::milliseconds(10);
      SCOPED_TRACE(name + " " + std::to_string(occurrence) + " fault " +
                   std::to_string(static_cast<int>(kind)));
      session(injected).play();
    }
  }
}

}  // namespace
