// The virtual reader's two halves, each against the other and against something worse.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <thread>

#include "control.h"
#include "pc_prox_api.h"
#include "process_figures.h"
#include "rig.h"
#include "session.h"
#include "socket_path.h"

namespace {

using namespace virtual_reader;
using lines = std::vector<std::string>;

std::string bytes_of(std::initializer_list<std::uint32_t> numbers) {
  std::string bytes;
  for (const std::uint32_t n : numbers) bytes.append(reinterpret_cast<const char*>(&n), sizeof n);
  return bytes;
}

const std::string right_greeting = "VRdr" + bytes_of({protocol_version});
const std::string other_greeting = "VRdr" + bytes_of({protocol_version + 1});

// A copy of the reader library with a state of its own, as each agent has one.
class loaded_library {
 public:
  explicit loaded_library(const scratch_folder& folder) {
    static int copies = 0;
    const std::string copy = folder.path + "/library" + std::to_string(++copies);
    std::ofstream(copy) << std::ifstream(VIRTUAL_LIBRARY).rdbuf();
    handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    setenv("VIRTUAL_READER_SOCKET", (folder.path + "/socket").c_str(), 1);
    told().clear();
    find<void (*)(pc_prox::marker_function)>("SetMarkerFunction")([](char* text, int length) {
      told().emplace_back(text, static_cast<std::size_t>(length));
    });
  }
  ~loaded_library() { dlclose(handle); }

  void disconnect() const { find<void (*)()>("USBDisconnect")(); }
  int connect() const {  // as the agent does it
    disconnect();
    return find<pc_prox::status (*)()>("usbConnect")();
  }
  int beep(std::uint8_t count = 1, std::int16_t is_long = 0) const {
    return find<pc_prox::status (*)(std::uint8_t, std::int16_t)>("BeepNow")(count, is_long);
  }
  void deafen() const { find<void (*)(pc_prox::marker_function)>("SetMarkerFunction")(nullptr); }
  // The card found as the verbs write it, "none" or "failed".
  std::string poll() const {
    const auto value_at = find<std::int64_t (*)(std::int16_t)>("GetQueuedID_index");
    if (!find<pc_prox::status (*)(std::int16_t, std::int16_t)>("GetQueuedID")(1, 0)) {
      return "failed";
    }
    const std::int64_t bits = value_at(32);
    std::string digits;
    for (std::int16_t i = 0; 8 * i < bits; ++i) {
      char pair[17];
      std::snprintf(pair, sizeof pair, "%02jX", static_cast<std::intmax_t>(value_at(i)));
      digits.insert(0, pair);
    }
    return bits == 0 ? "none" : digits + "/" + std::to_string(bits);
  }
  int set_led(std::int16_t on, std::int16_t red, std::int16_t green) const {
    pc_prox::sLEDCtrl record{};
    record.bAppCtrlsLED = on, record.iRedLEDState = red, record.iGrnLEDState = green;
    return find<pc_prox::status (*)(pc_prox::sLEDCtrl*)>("SetLEDCtrl")(&record);
  }
  int write_green() const { return call("ReadCfg") && set_led(1, 0, 1) && call("WriteCfg"); }
  int call(const char* name) const { return find<pc_prox::status (*)()>(name)(); }
  std::int64_t error() const { return find<std::int64_t (*)()>("GetLastLibErr")(); }
  static lines& told() {  // through the marker function
    static lines all;
    return all;
  }

 private:
  template <typename F>
  F find(const char* name) const {
    return reinterpret_cast<F>(dlsym(handle, name));
  }
  void* handle;
};

struct served_device : device {
  explicit served_device(const std::string& path) : listening(*this, path) {}
  server listening;
};

// Carries out a line of verbs, and returns what was wrong with it.
std::string tell(device& reader, const std::string& line, expectations* shared = nullptr,
                 lines* answers = nullptr) {
  expectations own(reader);
  session_callbacks around;
  around.answer = [&](const std::string& answer) {
    if (answers) answers->push_back(answer);
  };
  try {
    session(reader, shared ? *shared : own, around).execute(line);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// Null, and why, if it can't start.
std::unique_ptr<served_device> start(const std::string& path, std::string* failure) try {
  return std::make_unique<served_device>(path);
} catch (const std::runtime_error& error) {
  *failure = error.what();
  return nullptr;
}

// The fuzzer sends all kinds of bytes; these peers wait and do not hang up.
TEST(VirtualReader, OutlivesPeersThatWait) {
  const scratch_folder folder;
  served_device reader(folder.path + "/socket");
  std::vector<std::unique_ptr<descriptor>> peers;
  for (const std::string& sent :
       {std::string(), other_greeting, right_greeting + bytes_of({100, 1}),
        "XXdr" + bytes_of({protocol_version})}) {
    peers.push_back(std::make_unique<descriptor>(connect_to(folder.path + "/socket")));
    ASSERT_TRUE(send_bytes(peers.back()->number, sent.data(), sent.size(), in(patience)));
  }
  const loaded_library library(folder);
  EXPECT_EQ(library.connect(), 1);
  EXPECT_EQ(library.beep(), 1);
  for (const auto& peer : peers) {
    char block[64];
    ssize_t count = 1;
    while (count > 0 && wait_for(peer->number, POLLIN, in(patience))) {
      count = recv(peer->number, block, sizeof block, 0);
    }
    EXPECT_EQ(count, 0) << "the link has not been ended";
  }
  EXPECT_EQ(library.beep(), 1);
  for (const std::string why :
       {"it was silent instead of a greeting", "it speaks protocol version 2,",
        "it fell silent halfway", "its greeting is none of a virtual reader's"}) {
    EXPECT_EQ(tell(reader, "expect agent refused: " + why + " within 0"), "");
  }
  EXPECT_EQ(tell(reader, "expect call BeepNow 1 0 -> 1 within 0"), "");
}

TEST(VirtualReader, IsNoReaderToTheLibraryWhenItTalksNonsense) {
  const struct {
    std::string what, sent;
    lines told{};
    // Its patience is at an end once, not at every call.
    std::chrono::seconds most{9};
  } rows[] = {
      {"silence", ""},
      {"another mark", "XXdr" + bytes_of({protocol_version})},
      {"another version",
       other_greeting,
       {"virtual reader speaks protocol version " + std::to_string(protocol_version + 1) +
        ", this library version " + std::to_string(protocol_version)}},
      {"silence after its greeting", right_greeting},
      {"a reply without an end", right_greeting + bytes_of({0xFFFFFFFF, 4})},
      {"no line", right_greeting + bytes_of({4}) + "what"},
      {"a reply to another call", right_greeting + bytes_of({14}) + "call ReadCfg 1"},
      {"a length that no int holds",
       right_greeting + bytes_of({25}) + "says \"x\" length 99999999" + bytes_of({4}) + "what"},
  };
  for (const auto& row : rows) {
    const scratch_folder folder;
    listener door(folder.path + "/socket");
    std::atomic<bool> over{false};
    std::thread listener([&] {
      std::vector<std::unique_ptr<descriptor>> links;
      while (!over) {
        links.push_back(std::make_unique<descriptor>(door.accept()));
        send_bytes(links.back()->number, row.sent.data(), row.sent.size(), in(patience));
      }
    });
    const auto start = std::chrono::steady_clock::now();
    const loaded_library library(folder);
    for (int search = 0; search < 2; ++search) {
      EXPECT_EQ(library.connect(), 0) << row.what;
      EXPECT_EQ(library.error(), no_reader_connected) << row.what;
    }
    EXPECT_EQ(library.told(), row.told) << row.what;
    EXPECT_LT(std::chrono::steady_clock::now() - start, row.most) << row.what;
    over = true;
    door.interrupt();
    listener.join();
  }
}

TEST(VirtualReader, EndsWhateverThoseDoWhoTellIt) {
  const scratch_folder folder;
  device reader;
  expectations cursor(reader);
  auto listening = std::make_unique<server>(
      reader, folder.path + "/socket",
      [&](int socket, const auto& is_over) { serve_control(socket, is_over, reader, cursor, {}); });
  for (int i = 0; i < 20'000; ++i) reader.log.add(0, "led " + std::to_string(i));
  std::vector<std::unique_ptr<descriptor>> peers;
  for (const std::string verb : {"expect reset within 60000", "events follow 20000"}) {
    peers.push_back(std::make_unique<descriptor>(connect_to(folder.path + "/socket")));
    const int peer = peers.back()->number;
    ASSERT_TRUE(exchange_greetings(peer, control_greeting));
    ASSERT_TRUE(send_message(peer, "echo \"x\"\n" + verb, in(patience)));
    ASSERT_TRUE(receive_message(peer, answer_size_limit, in(patience)));
    ASSERT_TRUE(send_bytes(peer, "more", 4, in(patience)));  // and reads nothing
  }
  const auto start = std::chrono::steady_clock::now();
  listening.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, message_limit - std::chrono::seconds(1));
}

TEST(VirtualReader, IsHeldByOneAgentAtATime) {
  const scratch_folder folder;
  auto reader = std::make_unique<served_device>(folder.path + "/socket");
  auto first = std::make_unique<loaded_library>(folder);
  const loaded_library second(folder);
  EXPECT_EQ(first->connect(), 1);
  EXPECT_EQ(second.connect(), 0);
  EXPECT_EQ(second.error(), held_by_another_agent);
  EXPECT_EQ(second.beep(), 0);
  EXPECT_EQ(second.error(), no_reader_connected);
  first->disconnect();
  EXPECT_EQ(second.connect(), 1);
  EXPECT_EQ(first->connect(), 0);
  second.disconnect();
  EXPECT_EQ(first->connect(), 1);
  first.reset();
  EXPECT_EQ(tell(*reader, "expect agent detached"), "");
  EXPECT_EQ(second.connect(), 1) << "given up by its end";
  reader.reset();
  EXPECT_EQ(second.beep(), 0) << "pulled out by its end";
}

TEST(VirtualReader, CanBePulledOutDuringACall) {
  const scratch_folder folder;
  served_device reader(folder.path + "/socket");
  expectations cursor(reader);
  const loaded_library library(folder);
  for (const std::string fault : {"hang BeepNow", "delay BeepNow 60000 once", "vanish BeepNow"}) {
    ASSERT_EQ(library.connect(), 1);
    ASSERT_EQ(tell(reader, fault, &cursor), "");
    std::thread agent([&] { EXPECT_EQ(library.beep(), 0) << fault; });
    for (const std::string line : {"expect fault", "unplug", "plug", "release"}) {
      EXPECT_EQ(tell(reader, line, &cursor), "");
    }
    agent.join();
    EXPECT_EQ(library.error(), no_reader_connected) << fault;
    EXPECT_EQ(library.beep(), 0) << "until connected again";
  }
}

TEST(VirtualReader, TakesOverItsSocketOnlyFromWhatHasEnded) {
  const scratch_folder folder;
  const std::string path = folder.path + "/socket", left = folder.path + "/left";
  std::string why;
  std::ofstream(path) << "precious";
  start(path, &why);
  EXPECT_EQ(why, path + " exists and is no socket");
  EXPECT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(start(folder.path + "/none/socket", &why), nullptr);
  EXPECT_EQ(start(folder.path + std::string(200, 'x'), &why), nullptr);
  {
    const served_device ended(path);
    EXPECT_EQ(link(path.c_str(), left.c_str()), 0);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "removed at the end";
  for (int round = 0; round < 100; ++round) {
    ASSERT_EQ(link(left.c_str(), path.c_str()), 0);
    std::string failures[2];
    auto other = std::async(std::launch::async, start, path, &failures[0]);
    const auto one = start(path, &failures[1]), two = other.get();
    ASSERT_EQ(failures[one ? 0 : 1], "another virtual reader already runs on " + path);
    ASSERT_NE(one == nullptr, two == nullptr) << "both have taken it over";
  }
  unsetenv("VIRTUAL_READER_SOCKET");
  setenv("XDG_RUNTIME_DIR", folder.path.c_str(), 1);
  make_default_socket_folder();
  EXPECT_TRUE(default_socket_path_is_private());
  chmod((folder.path + "/virtual-reader").c_str(), 0750);
  EXPECT_FALSE(default_socket_path_is_private()) << "others may enter";
  EXPECT_EQ(rename((folder.path + "/virtual-reader").c_str(), (folder.path + "/own").c_str()), 0);
  chmod((folder.path + "/own").c_str(), 0700);
  EXPECT_EQ(symlink("own", (folder.path + "/virtual-reader").c_str()), 0);
  EXPECT_FALSE(default_socket_path_is_private()) << "a link may lead elsewhere tomorrow";
  unsetenv("XDG_RUNTIME_DIR");
  {
    const served_device robbed(path);
    EXPECT_EQ(unlink(path.c_str()), 0);
    std::ofstream(path) << "somebody else's";
  }
  EXPECT_EQ(access(path.c_str(), F_OK), 0) << "it has removed what was not its own";
}

TEST(VirtualReader, SaysWhatIsWrongWithALine) {
  const std::pair<std::string, std::string> rows[] = {
      // a line, and how its error begins
      {"crad", "unknown verb 'crad'; did you mean 'card'?"},
      {"card hold 1 2", "expected the end, got '2'; usage: card hold HEX[/BITS]"},
      {"card hold 3AB1234/25", "'3AB1234/25' does not fit in its bits; usage: card hold"},
      {"card hold 1/257", "expected a number from 1 to 256, got '257'"},
      {R"(part "\q")", "unknown escape"},
      {R"(part "x)", "the closing quote is missing"},
      {R"(part "x"y)", "expected a space behind the closing quote"},
      {"part \"" + std::string(1'000'001, 'x') + '"', "the text is longer than a million bytes"},
      {"fail Beep", "expected SetMarkerFunction, BeepNow, "},
      {"fail BeepNow at 0", "expected a number from 1"},
      {"fail BeepNow once once", "expected the end, got 'once'; usage: fail CALL"},
      {R"(send "a\nb")", "expected one line"},
      {"loop", "only a script can loop"},
      {"quit \"\"", "expected the end, got ''; usage: quit"},
      {"expect led blue", "expected red, green, amber, off or auto, got 'blue'"},
      {"expect led gren",
       "expected red, green, amber, off or auto, got 'gren'; did you mean 'green'?"},
      {"expect no led red within 2000 ms", "expected the end, got 'ms'"},
      {"expect no beep 1 short", "expected short or long, got '1'"},
      {"expect no config tsCfgFlag.bHaltKBSnd=1",
       "unknown setting 'tsCfgFlag.bHaltKBSnd'; did you "
       "mean 'tsCfgFlags.bHaltKBSnd'?"},
      {"expect no card 3AB1234/2", "'3AB1234/2' does not fit in its bits"},
      {"expect reset 1", "expected the end, got '1'"},
      {"expect received a within 5 ms", "expected the end after `within MS`, got ' ms'"},
      {"expect received /(/", "invalid regular expression"},
      {"expect nothing", "usage: expect"},
      {" # a comment", ""},
  };
  const scratch_folder folder;
  served_device reader(folder.path + "/socket");
  for (const auto& [line, error] : rows) {
    const std::string came = tell(reader, line);
    EXPECT_EQ(came.substr(0, error.empty() ? came.npos : error.size()), error) << line;
  }
}

// Each row is a verb and its answers, or what is asked of the library and the result.
TEST(VirtualReader, DoesWhatItsVerbsSay) {
  struct step {
    std::string what, outcome;
  };
  const std::string stored =
      "tsIDBitCnts.iLeadParityBitCnt=1 tsIDBitCnts.iTrailParityBitCnt=1 tsIDBitCnts.reserved4=104 "
      "tsIDBitCnts.iTotalBitCnt=26 tsIDBitCnts.reserved8=108 tsIDBitCnts.reserved10=110 "
      "tsIDBitCnts.reserved12=112 tsIDBitCnts.reserved14=114 "
      "tsCfgFlags.reserved0=200 tsCfgFlags.bFrcBitCntEx=0 tsCfgFlags.reserved4=204 "
      "tsCfgFlags.reserved6=206 tsCfgFlags.reserved8=208 tsCfgFlags.reserved10=210 "
      "tsCfgFlags.bSndOnRx=1 tsCfgFlags.bHaltKBSnd=0 "
      "tsTimeParms.iBitStrmTO=20 tsTimeParms.iIDHoldTO=1000 tsTimeParms.iIDLockOutTm=1000 "
      "tsTimeParms.reserved6=306 tsTimeParms.reserved8=308 tsTimeParms.reserved10=310 "
      "tsTimeParms.reserved12=312 tsTimeParms.reserved14=314 "
      "tsCfgFlags2.reserved0=400 tsCfgFlags2.reserved2=402 tsCfgFlags2.bWiegInvData=0 "
      "tsCfgFlags2.bUseInvDataF=0 tsCfgFlags2.bRevWiegBits=0 tsCfgFlags2.bBeepID=1 "
      "tsCfgFlags2.bRevBytes=0 tsCfgFlags2.reserved14=414 "
      "tsLEDCtrl.bAppCtrlsLED=1 tsLEDCtrl.iRedLEDState=0 tsLEDCtrl.iGrnLEDState=1 "
      "tsLEDCtrl.reserved6=0 tsLEDCtrl.reserved8=0 tsLEDCtrl.reserved10=0 "
      "tsLEDCtrl.reserved12=0 tsLEDCtrl.reserved14=0";
  const std::pair<const char*, std::vector<step>> rows[] = {
      {"cards",
       {{".poll", "none"},
        {"card hold 3AB1234/26", ""},
        {"card queue EE 12/5", ""},
        {".poll", "EE/8"},
        {".poll", "12/5"},
        {".poll", "03AB1234/26"},
        {".poll", "03AB1234/26"},
        {"card remove", ""},
        {".poll", "none"},
        {"card queue EE", ""},
        {"card drop", ""},
        {".poll", "none"},
        {"card raw 12 0x1FF -1", ""},
        {".poll", "FFFFFFFFFFFFFFFF1FF/12"}}},
      {"a held card is one entry, until it was away",
       {{"card hold EE", ""},
        {".poll", "EE/8"},
        {"expect card EE/8 within 0", ""},
        {"card hold EE", ""},
        {".poll", "EE/8"},
        {"expect no card within 0", ""},
        {"replug", ""},
        {".poll", "failed"},
        {".connect", "1"},
        {".poll", "EE/8"},
        {"expect card EE/8 within 0", ""}}},
      {"light and sound",
       {{".led red", "1"},
        {"led", "led red"},
        {".led amber", "1"},
        {"led", "led amber"},
        {".beep", "1"},
        {".beep long", "1"},
        {".beep", "1"},
        {"beeps", "beeps 2 short, 3 long"},
        {"unplug", ""},
        {"led", "led dark"},
        {"plug", ""},
        {"led", "led auto"}}},  // it was not written
      {"configuration",
       {{".write", "1"},
        {"replug", ""},
        {"led", "led green"},
        {"expect config tsCfgFlags2.bBeepID=1 tsLEDCtrl.iGrnLEDState=1 within 0", ""},
        {"config", stored},
        {".connect", "1"},
        {".reset", "1"},
        {"led", "led auto"},
        {"expect reset within 0", ""},
        {"expect led auto within 0", ""}}},
      {"failures",
       {{"fail BeepNow error 7 at 2", ""},
        {".beep", "1"},
        {".beep", "0"},
        {".error", "7"},
        {".beep", "1"},
        {"fail BeepNow error 8", ""},
        {"fail BeepNow error 9 times 2", ""},
        {".beep", "0"},
        {".error", "8"},
        {".beep", "0"},
        {".error", "9"},
        {".beep", "0"},
        {".beep", "1"},
        {"fail BeepNow from 2", ""},
        {".beep", "1"},
        {".beep", "0"},
        {".beep", "0"},
        {"clear SetLEDCtrl", ""},
        {".beep", "0"},
        {"clear BeepNow", ""},
        {".beep", "1"},
        {"fail SetMarkerFunction", ""},
        {".deafen", ""},
        {"say BeepNow \"heard\"", ""},
        {".beep", "1"},
        {".told", "heard"},
        {"say BeepNow thread \"again\" length 3 always", ""},
        {".beep", "1"},
        {".told", "heard aga"},
        {"clear", ""},
        {".beep", "1"},
        {".told", "heard aga"},
        {"part \"A B\"", ""},
        {"vanish GetQueuedID", ""},
        {".poll", "failed"},
        {".beep", "0"},
        {".error", "1"}}},
      {"delays",
       {{"delay BeepNow 60000", ""},
        {"delay BeepNow 30", ""},  // in place of that
        {".beep", "1"},
        {"expect enter BeepNow within 0", ""},
        {"expect call BeepNow within 0", ""}}},
  };
  for (const auto& [what, steps] : rows) {
    SCOPED_TRACE(what);
    const scratch_folder folder;
    served_device reader(folder.path + "/socket");
    const loaded_library library(folder);
    ASSERT_EQ(library.connect(), 1);
    expectations cursor(reader);
    for (const auto& [verb, outcome] : steps) {
      std::string came;
      if (verb == ".poll") came = library.poll();
      if (verb == ".beep") came = std::to_string(library.beep());
      if (verb == ".beep long") came = std::to_string(library.beep(3, 1));
      if (verb == ".error") came = std::to_string(library.error());
      if (verb == ".connect") came = std::to_string(library.connect());
      if (verb == ".write") came = std::to_string(library.write_green());
      if (verb == ".reset") came = std::to_string(library.call("ResetFactoryDflts"));
      if (verb == ".led red") came = std::to_string(library.set_led(1, 1, 0));
      if (verb == ".led green") came = std::to_string(library.set_led(1, 0, 1));
      if (verb == ".led amber") came = std::to_string(library.set_led(1, 2, -1));
      if (verb == ".deafen") library.deafen();
      lines answers = verb == ".told" ? library.told() : lines();
      if (verb[0] != '.') came = tell(reader, verb, &cursor, &answers);
      for (const std::string& line : answers) came += (came.empty() ? "" : " ") + line;
      EXPECT_EQ(came, outcome) << verb;
    }
  }
}

TEST(VirtualReader, RecordsWhatHappensInOrder) {
  const scratch_folder folder;
  served_device reader(folder.path + "/socket");
  for (const std::string verb :
       {"card hold 3/2 # held", "say BeepNow \"a\\n\" length 1", "hang BeepNow times 2"}) {
    ASSERT_EQ(tell(reader, verb), "");
  }
  {
    const loaded_library library(folder);
    library.connect();
    for (int i = 0; i < 3; ++i) library.poll();
    tell(reader, "card remove");
    library.poll();
    library.poll();
    std::thread beeping([&] { EXPECT_EQ(library.beep(), 1); });
    EXPECT_EQ(tell(reader, "expect says"), "");  // the library says it before it hangs
    lines shown;
    EXPECT_EQ(tell(reader, "show", nullptr, &shown), "");
    const std::string state = shown[7] + shown[8] + shown[9];
    for (const std::string part :
         {R"("number":1)", R"("holds_reader":true)", R"("name":"BeepNow","state":"hangs")",
          R"("id":2,"text":"hang BeepNow once","call":"BeepNow")"}) {
      EXPECT_NE(state.find(part), state.npos) << state;
    }
    tell(reader, "release");
    beeping.join();
  }
  ASSERT_EQ(tell(reader, "expect agent detached"), "");
  lines came;
  ASSERT_EQ(tell(reader, "events all 100", nullptr, &came), "");
  for (std::string& line : came) {
    line.erase(0, line.find(' ') + 1);
    line.erase(std::min(line.rfind(" ("), line.size()));
  }
  came.erase(std::unique(came.begin(), came.end()), came.end());  // some may have taken their time
  EXPECT_EQ(came, (lines{"- verb card hold 3/2 # held",
                         "- verb say BeepNow \"a\\n\" length 1",
                         "- verb hang BeepNow times 2",
                         "1 agent attached",
                         "1 call SetMarkerFunction 1",
                         "1 call USBDisconnect",
                         "1 connected",
                         "1 call usbConnect -> 1",
                         "1 card 3/2",
                         "1 call GetQueuedID 1 0 -> 1",
                         "- verb card remove",
                         "1 call GetQueuedID 1 0 -> 1",
                         "1 fault hang BeepNow",
                         "1 enter BeepNow 1 0",
                         "1 says \"a\\n\" length 1",
                         "- verb release",
                         "1 beep short 1",
                         "1 call BeepNow 1 0 -> 1",
                         "1 disconnected",
                         "1 agent detached"}));
}

TEST(VirtualReader, ASessionSkipsToWhatItExpects) {
  device reader;
  for (const std::string text :
       {"led red", "beep short 20", "card 03AB1234/26", "led red", "call X -> \"a b\"",
        "received Log: a \"b # c", "led green", "received access NOT granted"}) {
    reader.log.add(1, text);
  }
  expectations shared(reader);
  const std::pair<std::string, std::string> rows[] = {
      // what is expected within 0 ms, and what was wrong
      {"beep short 2", "expected beep short 2 within 0 ms, got beep short 20"},
      {"no beep", "expected no beep, got beep short 20"},
      {"beep short 20", ""},
      {"led red", ""},
      {"led red", ""},
      {"card 3ab1234", ""},
      {"received Log: a \"b # c", ""},
      {"no led red", ""},
      {"no led green", "expected no led green, got led green"},
      {"led green", ""},
      {"no led green", ""},
      {"received access granted",
       "expected received access granted within 0 ms, got received "
       "access NOT granted"},
      {"received /^access (NOT )?granted$/", ""},
  };
  for (const auto& [pattern, error] : rows) {
    EXPECT_EQ(tell(reader, "expect " + pattern + " within 0", &shared), error) << pattern;
  }
  std::thread later([&] { reader.log.add(1, "reset"); });
  EXPECT_EQ(tell(reader, "expect reset within 20000", &shared), "");
  later.join();
}

TEST(VirtualReader, KeepsARecordOfABoundedSize) {
  event_log small(10'000);
  for (int i = 0; i < 1000; ++i) small.add(0, "led " + std::to_string(i / 2));
  const auto kept = small.read(1);
  EXPECT_EQ(small.end(), 1001u);
  EXPECT_EQ(kept.back().number, 999u);
  EXPECT_EQ(kept.back().count, 2u);
  EXPECT_GT(kept.front().number, 700u) << "the oldest have been dropped";
  EXPECT_TRUE(small.has_dropped(1));
  EXPECT_EQ(small.read(1000).front().count, 1u) << "from the middle of equal ones";
  small.add(0, std::string(20'000, 'x'));
  EXPECT_EQ(small.read(1).size(), 1u) << "one is kept, however long";
  for (int i = 0; i < 1000; ++i) small.add(0, "received " + std::to_string(i));
  EXPECT_EQ(small.read(1).front().text[0], 'x') << "the application pushes nothing out";
  EXPECT_EQ(small.last(1, [](const event&) { return true; })[0].text, "received 999");
}

TEST(VirtualReader, ReadsBackWhatItWrites) {
  for (const std::string text :
       {"call BeepNow 2 0 -> 1", "call SetMarkerFunction 1", "call getPartNumberString -> null",
        "call getPartNumberString -> \"a\\n\\\" (1.000 ms)\" (12.345 ms)", "enter BeepNow -1 0",
        "call GetFlags -> 1 200 -9223372036854775808 (1500.123 ms)"}) {
    const auto read = parse_call(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(to_text(*read), text);
  }
  for (const std::string text : {"says \"a b\"", "says thread \"\\x00\" length -1"}) {
    const auto read = parse_says(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(to_text(*read), text);
  }
  for (const std::string line : {"0.000001 - reset", "12345.678901 17 led red"}) {
    const auto read = parse_event(line);
    ASSERT_TRUE(read) << line;
    EXPECT_EQ(to_text(*read), line);
  }
  for (const std::string wrong : {"", "1.5 - x", "1.000000 x y", "1.000000 -", "-1.000000 - x"}) {
    EXPECT_FALSE(parse_event(wrong)) << wrong;
  }
  for (const std::string wrong : {"call", "call X -> \"a", "call X y", "call X -> 1 (1.5 ms)"}) {
    EXPECT_FALSE(parse_call(wrong)) << wrong;
  }
}

TEST(VirtualReader, LeavesNothingBehind) {
  const scratch_folder folder;
  const loaded_library library(folder);
  const std::size_t before = open_descriptors(getpid());
  for (int cycle = 0; cycle < 1000; ++cycle) {
    served_device reader(folder.path + "/socket");
    ASSERT_EQ(library.connect(), 1) << cycle;
    ASSERT_EQ(library.beep(), 1);
    reader.modify([](auto& r) { r.unplug(); });
    ASSERT_EQ(library.beep(), 0);
    reader.modify([](auto& r) { r.plug(); });
    ASSERT_EQ(library.connect(), 1);
  }
  EXPECT_EQ(library.beep(), 0);
  EXPECT_EQ(open_descriptors(getpid()), before);
}

}  // namespace
