// The virtual reader and its library, against each other and against peers that misbehave.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <future>
#include <map>
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

// Executes a line, and returns its error.
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
TEST(VirtualReader, PeersThatWaitDoNotHoldItUp) {
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

TEST(VirtualReader, ListenerThatTalksNonsenseIsNoReader) {
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

TEST(VirtualReader, EndsWhileControlClientsReadNothing) {
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

TEST(VirtualReader, SecondAgentIsRefusedUntilTheFirstDisconnects) {
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

TEST(VirtualReader, CallFailsWhenTheReaderIsUnpluggedDuringIt) {
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

TEST(VirtualReader, SocketIsTakenOverOnlyFromAnEndedReader) {
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

std::string act(device& reader, const loaded_library& library, expectations* cursor,
                const std::string& line) {
  const std::map<std::string, std::function<std::string()>> calls = {
      {".poll", [&] { return library.poll(); }},
      {".beep", [&] { return std::to_string(library.beep()); }},
      {".beep long", [&] { return std::to_string(library.beep(3, 1)); }},
      {".error", [&] { return std::to_string(library.error()); }},
      {".connect", [&] { return std::to_string(library.connect()); }},
      {".disconnect", [&] { return library.disconnect(), ""; }},
      {".write", [&] { return std::to_string(library.write_green()); }},
      {".reset", [&] { return std::to_string(library.call("ResetFactoryDflts")); }},
      {".led red", [&] { return std::to_string(library.set_led(1, 1, 0)); }},
      {".led amber", [&] { return std::to_string(library.set_led(1, 2, -1)); }},
      {".deafen", [&] { return library.deafen(), ""; }}};
  const auto call = calls.find(line);
  if (call != calls.end()) return call->second();
  if (line.rfind(".log ", 0) == 0) return reader.log.add(1, line.substr(5)), "";
  lines answers = line == ".told" ? library.told() : lines();
  std::string outcome = line[0] == '.' ? "" : tell(reader, line, cursor, &answers);
  for (std::string answer : answers) {
    if (line.rfind("events", 0) == 0) answer.erase(0, answer.find(' ') + 1);
    answer.erase(std::min(answer.rfind(" ("), answer.size()));  // a call may have taken its time
    outcome += (outcome.empty() ? "" : " | ") + answer;
  }
  return outcome;
}

TEST(VirtualReader, LinesHaveTheOutcomesOfTheText) {
  std::ifstream text(LINES_AND_OUTCOMES);
  std::size_t number = 0, tested = 0;
  for (std::string line; std::getline(text, line); ++number) {
    const scratch_folder folder;
    served_device reader(folder.path + "/socket");
    const loaded_library library(folder);
    ASSERT_EQ(library.connect(), 1);
    expectations cursor(reader);
    for (; !line.empty(); std::getline(text, line), ++number) {
      if (line[0] == '#') continue;
      const std::size_t arrow = std::min(line.find(" => "), line.size());
      std::string outcome = line.substr(std::min(arrow + 4, line.size()));
      std::string got = act(reader, library, &cursor, line.substr(0, arrow));
      if (outcome.size() > 3 && outcome.substr(outcome.size() - 3) == "...") {
        outcome.resize(outcome.size() - 3);
        got.resize(std::min(got.size(), outcome.size()));
      }
      EXPECT_EQ(got, outcome) << "line " << number + 1 << ": " << line;
      ++tested;
    }
  }
  EXPECT_GT(tested, 100u);
}

TEST(VirtualReader, LogDropsTheOldestEventsOfItsPart) {
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

TEST(VirtualReader, LinesReadBackAsWritten) {
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

TEST(VirtualReader, ThousandReadersLeaveNoDescriptor) {
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
