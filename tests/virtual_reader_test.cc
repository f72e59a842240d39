// The virtual reader's two halves, each against the other and against something worse.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <thread>

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
  int beep() const {
    return find<pc_prox::status (*)(std::uint8_t, std::int16_t)>("BeepNow")(1, 0);
  }
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

// Carries out a line of verbs, and returns what was wrong with it.
std::string tell(device& reader, const std::string& line,
                 std::atomic<std::uint64_t>* cursor = nullptr, lines* answers = nullptr) {
  std::atomic<std::uint64_t> beginning{1};
  surroundings around;
  around.answer = [&](const std::string& answer) {
    if (answers) answers->push_back(answer);
  };
  try {
    session(reader, cursor ? *cursor : beginning, around).carry_out(line);
    return "";
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

// Null, and why, if it can't start.
std::unique_ptr<device> start(const std::string& path, std::string* failure) try {
  return std::make_unique<device>(path);
} catch (const std::runtime_error& error) {
  *failure = error.what();
  return nullptr;
}

// The fuzzer sends all kinds of bytes; these peers wait and do not hang up.
TEST(VirtualReader, OutlivesPeersThatWait) {
  const scratch_folder folder;
  device reader(folder.path + "/socket");
  std::vector<std::unique_ptr<descriptor>> peers;
  for (const std::string& sent :
       {std::string(), other_greeting, right_greeting + bytes_of({100, 1})}) {
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
  EXPECT_EQ(tell(reader, "expect call BeepNow 1 0 -> 1 within 0"), "");
}

TEST(VirtualReader, IsNoReaderToTheLibraryWhenItTalksNonsense) {
  const struct {
    std::string what, sent;
    lines told{};
  } rows[] = {
      {"silence", ""},
      {"another version",
       other_greeting,
       {"virtual reader speaks protocol version " + std::to_string(protocol_version + 1) +
        ", this library version " + std::to_string(protocol_version)}},
      {"silence after its greeting", right_greeting},
      {"a reply without an end", right_greeting + bytes_of({0xFFFFFFFF, 4})},
      {"an unknown kind", right_greeting + bytes_of({20, 2, 99, 0, 0, 0})},
      {"a length that no int holds", right_greeting +
                                         bytes_of({33, 3, 2, 0, 1000000, 0xFFFFFFFF, 0, 0, 1}) +
                                         "x" + bytes_of({20, 2, 99, 0, 0, 0})},
      {"a text that ends early", right_greeting + bytes_of({33, 3, 2, 0, 9, 0, 0, 0, 2}) + "x"},
  };
  for (const auto& row : rows) {
    const scratch_folder folder;
    entrance door(folder.path + "/socket");
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
    EXPECT_LT(std::chrono::steady_clock::now() - start, message_limit + greeting_limit) << row.what;
    over = true;
    door.interrupt();
    listener.join();
  }
}

TEST(VirtualReader, IsHeldByOneAgentAtATime) {
  const scratch_folder folder;
  auto reader = std::make_unique<device>(folder.path + "/socket");
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
  EXPECT_EQ(tell(*reader, "expect agent gone"), "");
  EXPECT_EQ(second.connect(), 1) << "given up by its end";
  reader.reset();
  EXPECT_EQ(second.beep(), 0) << "pulled out by its end";
}

TEST(VirtualReader, CanBePulledOutDuringACall) {
  const scratch_folder folder;
  device reader(folder.path + "/socket");
  std::atomic<std::uint64_t> cursor{1};
  const loaded_library library(folder);
  for (const std::string fault : {"hang BeepNow", "delay BeepNow 200 once", "vanish BeepNow"}) {
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
    const device ended(path);
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
  unsetenv("XDG_RUNTIME_DIR");
}

TEST(VirtualReader, SaysWhatIsWrongWithALine) {
  const std::pair<std::string, std::string> rows[] = {
      // a line, and its error's beginning
      {"card", "unknown verb 'card'"},
      {"card hold 1 2", "right would be: card hold HEX[/BITS]"},
      {"card hold 3AB1234/25", "'3AB1234/25' does not fit in its bits; right would be: card hold"},
      {"card hold 1/257", "'257' is no number from 1 to 256"},
      {R"(part "\q")", "unknown escape"},
      {R"(part "x)", "the closing quote is missing"},
      {R"(part "x"y)", "no blank behind a closing quote"},
      {"part \"" + std::string(1'000'001, 'x') + '"', "the text is longer than a million bytes"},
      {"fail BeepNow at 0", "'0' is no number from 1"},
      {"fail BeepNow once once", "right would be: fail CALL"},
      {R"(host "a\nb")", "a command is one line"},
      {"again", "only a file can begin anew"},
      {"quit \"\"", "right would be: quit"},
      {"expect led gren", "no entry of the record has 'gren' there, did you mean 'green'?"},
      {" # a comment", ""},
  };
  const scratch_folder folder;
  device reader(folder.path + "/socket");
  for (const auto& [line, error] : rows) {
    const std::string came = tell(reader, line);
    EXPECT_EQ(came.substr(0, error.empty() ? came.npos : error.size()), error) << line;
  }
}

TEST(VirtualReader, LeavesNothingBehind) {
  const scratch_folder folder;
  const loaded_library library(folder);
  const std::size_t before = open_descriptors(getpid());
  for (int cycle = 0; cycle < 1000; ++cycle) {
    device reader(folder.path + "/socket");
    ASSERT_EQ(library.connect(), 1) << cycle;
    ASSERT_EQ(library.beep(), 1);
    reader.change([](auto& r) { r.unplug(); });
    ASSERT_EQ(library.beep(), 0);
    reader.change([](auto& r) { r.plug(); });
    ASSERT_EQ(library.connect(), 1);
  }
  EXPECT_EQ(library.beep(), 0);
  EXPECT_EQ(open_descriptors(getpid()), before);
}

}  // namespace
