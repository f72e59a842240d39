// The virtual reader's two halves, each against the other and against something worse.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "pc_prox_api.h"
#include "pc_prox_api.h"
#include "rig.h"
#include "socket_path.h"
#include "verbs.h"
#include "words.h"

namespace {

using namespace virtual_reader;
using namespace std::chrono_literals;
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
    std::ofstream(copy, std::ios::binary)
        << std::ifstream(VIRTUAL_LIBRARY, std::ios::binary).rdbuf();
    handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) throw std::runtime_error(dlerror());
    setenv("VIRTUAL_READER_SOCKET", (folder.path + "/socket").c_str(), 1);
    told().clear();
    call<void>("SetMarkerFunction", pc_prox::marker_function{[](char* text, int length) {
                 told().emplace_back(text, static_cast<std::size_t>(length));
               }});
  }
  ~loaded_library() {
    call<void>("SetMarkerFunction", pc_prox::marker_function{nullptr});
    dlclose(handle);
  }
  loaded_library(const loaded_library&) = delete;
  loaded_library& operator=(const loaded_library&) = delete;

  template <typename R = int, typename... A>
  R call(const char* name, A... arguments) const {
    using result = std::conditional_t<std::is_void_v<R>, void, pc_prox::status>;
    return static_cast<R>(reinterpret_cast<result (*)(A...)>(dlsym(handle, name))(arguments...));
  }
  int connect() const {  // as the agent does it
    call<void>("USBDisconnect");
    return call("usbConnect");
  }
  int beep() const { return call("BeepNow", std::uint8_t{1}, std::int16_t{0}); }
  int poll() const { return call("GetQueuedID", std::int16_t{1}, std::int16_t{0}); }
  std::int64_t error() const {
    return reinterpret_cast<std::int64_t (*)()>(dlsym(handle, "GetLastLibErr"))();
  }
  static lines& told() {  // through the marker function
    static lines all;
    return all;
  }

 private:
  void* handle;
};

std::size_t open_descriptors() {
  std::size_t count = 0;
  DIR* const folder = opendir("/dev/fd");
  while (readdir(folder)) ++count;
  closedir(folder);
  return count;
}

std::string failure_to_start(const std::string& path) {
  try {
    device(path, nullptr);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return {};
}

TEST(VirtualReader, OutlivesWhateverIsSentToIt) {
  const scratch_folder folder;
  device reader(folder.path + "/socket", nullptr);
  const struct {
    std::string what, sent;
  } rows[] = {
      {"nothing", ""},
      {"half a greeting", "VRd"},
      {"garbage", "GET / HTTP/1.1\r\n\r\n"},
      {"another version", other_greeting},
      {"half a size", right_greeting + "\x08"},
      {"half a message", right_greeting + bytes_of({100, 1})},
      {"a message without an end", right_greeting + bytes_of({0xFFFFFFFF, 0})},
      {"an empty message", right_greeting + bytes_of({0})},
      {"more numbers than bytes", right_greeting + bytes_of({8, 0xFFFFFFFF, 0})},
      {"more text than bytes", right_greeting + bytes_of({8, 0, 100})},
      {"no call", right_greeting + bytes_of({16, 1, 0, 0, 0})},
      {"more arguments than numbers",
       right_greeting + bytes_of({39, 3, 1, 0, 0, 0, 8, 0, 7}) + "BeepNow"},
  };
  std::vector<std::unique_ptr<descriptor>> peers;
  for (const auto& row : rows) {
    peers.push_back(std::make_unique<descriptor>(connect_to(folder.path + "/socket")));
    ASSERT_TRUE(send_bytes(peers.back()->number, row.sent.data(), row.sent.size(), in(patience)));
  }
  const loaded_library library(folder);
  EXPECT_EQ(library.connect(), 1);
  EXPECT_EQ(library.beep(), 1);
  for (std::size_t i = 0; i < peers.size(); ++i) {
    char block[64];
    ssize_t count = 1;
    while (count > 0 && wait_for(peers[i]->number, POLLIN, in(patience))) {
      count = recv(peers[i]->number, block, sizeof block, 0);
    }
    EXPECT_LE(count, 0) << rows[i].what << " has not ended the link";
  }
  EXPECT_EQ(library.beep(), 1);
  EXPECT_EQ(reader.calls().back(), "BeepNow 1 0 -> 1");
}

TEST(VirtualReader, IsNoReaderToTheLibraryWhenItTalksNonsense) {
  const struct {
    std::string what, sent;
    lines told;
  } rows[] = {
      {"silence", "", {}},
      {"garbage", "HTTP/1.1 400 Bad Request\r\n", {}},
      {"another version",
       other_greeting,
       {"virtual reader speaks protocol version " + std::to_string(protocol_version + 1) +
        ", this library version " + std::to_string(protocol_version)}},
      {"silence after its greeting", right_greeting, {}},
      {"half a reply", right_greeting + bytes_of({36, 4}), {}},
      {"a reply without an end", right_greeting + bytes_of({0xFFFFFFFF, 4}), {}},
      {"an unknown kind", right_greeting + bytes_of({20, 2, 99, 0, 0, 0}), {}},
      {"a message that ends early",
       right_greeting + bytes_of({33, 3, 2, 0, 9, 0, 0, 0, 2}) + "x",
       {}},
  };
  for (const auto& row : rows) {
    const scratch_folder folder;
    entrance door(folder.path + "/socket");
    std::thread nonsense([&] {
      for (int socket; (socket = door.accept()) >= 0;) {
        const descriptor link(socket);
        send_bytes(socket, row.sent.data(), row.sent.size(), in(patience));
        if (row.what == "half a reply") shutdown(socket, SHUT_WR);
        char block[64];
        while (wait_for(socket, POLLIN, in(patience)) && recv(socket, block, sizeof block, 0) > 0) {
        }
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
    nonsense.join();
  }
}

TEST(VirtualReader, IsHeldByOneAgentAtATime) {
  const scratch_folder folder;
  auto reader = std::make_unique<device>(folder.path + "/socket", nullptr);
  auto first = std::make_unique<loaded_library>(folder);
  const loaded_library second(folder);
  EXPECT_EQ(first->connect(), 1);
  EXPECT_EQ(second.connect(), 0);
  EXPECT_EQ(second.error(), held_by_another_agent);
  EXPECT_EQ(second.beep(), 0);
  EXPECT_EQ(second.error(), no_reader_connected);
  first->call<void>("USBDisconnect");
  EXPECT_EQ(second.connect(), 1);
  EXPECT_EQ(first->connect(), 0);
  second.call<void>("USBDisconnect");
  EXPECT_EQ(first->connect(), 1);
  first.reset();
  // The end of the first agent is told to the reader by its system, some time.
  const auto deadline = in(patience);
  while (second.connect() == 0 && std::chrono::steady_clock::now() < deadline) {
  }
  EXPECT_EQ(second.poll(), 1);
  reader.reset();
  EXPECT_EQ(second.poll(), 0) << "pulled out by its end";
}

TEST(VirtualReader, CanBePulledOutDuringACall) {
  const scratch_folder folder;
  device reader(folder.path + "/socket", nullptr);
  verbs told(reader, [](const std::string&) {});
  const loaded_library library(folder);
  for (const std::string fault : {"hang BeepNow", "delay BeepNow 200 once", "vanish BeepNow"}) {
    ASSERT_EQ(library.connect(), 1);
    ASSERT_EQ(told.run(fault), "");
    std::thread agent([&] { EXPECT_EQ(library.beep(), 0) << fault; });
    EXPECT_EQ(told.run("expect BeepNow"), "");
    for (const std::string line : {"unplug", "plug", "release"}) EXPECT_EQ(told.run(line), "");
    agent.join();
    EXPECT_EQ(library.error(), no_reader_connected) << fault;
    EXPECT_EQ(library.beep(), 0) << "until connected again";
  }
  EXPECT_TRUE(told.expectations_held());
}

TEST(VirtualReader, TakesOverItsSocketOnlyFromWhatHasEnded) {
  const scratch_folder folder;
  const std::string path = folder.path + "/socket";
  std::ofstream(path) << "precious";
  EXPECT_EQ(failure_to_start(path), path + " exists and is no socket");
  std::string kept;
  std::ifstream(path) >> kept;
  EXPECT_EQ(kept, "precious");
  unlink(path.c_str());
  {
    const device first(path, nullptr);
    EXPECT_EQ(failure_to_start(path), "another virtual reader already runs on " + path);
    EXPECT_EQ(link(path.c_str(), (folder.path + "/left").c_str()), 0);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0) << "removed at the end";
  EXPECT_EQ(failure_to_start(folder.path + "/left"), "") << "nobody listens there any more";
  EXPECT_NE(failure_to_start(folder.path + "/none/socket"), "");
  EXPECT_NE(failure_to_start(folder.path + std::string(200, 'x')), "");

  unsetenv("VIRTUAL_READER_SOCKET");
  setenv("XDG_RUNTIME_DIR", folder.path.c_str(), 1);
  make_default_socket_folder();
  EXPECT_TRUE(default_socket_path_is_private());
  chmod((folder.path + "/virtual-reader").c_str(), 0750);
  EXPECT_FALSE(default_socket_path_is_private()) << "others may enter";
  unsetenv("XDG_RUNTIME_DIR");
}

TEST(VirtualReader, SaysWhatIsWrongWithALineAndDoesNothing) {
  const struct {
    std::string line, error;  // the error's beginning
  } rows[] = {
      {"foo", "unknown verb 'foo'"},
      {"card", "unknown verb 'card'"},
      {"card queue", "right would be: card queue HEX[/BITS] ..."},
      {"card queue 1 3G", "'3G' has not 1 to 64 hexadecimal digits"},
      {"card queue 3AB1234/25", "'3AB1234/25' does not fit"},
      {"card queue 1/257", "'257' is no number from 1 to 256"},
      {"card queue " + std::string(65, '1'), "'11111"},
      {"card hold 1 2", "right would be: card hold HEX[/BITS]"},
      {"card raw 1", "right would be: card raw BITS VALUE ..."},
      {"card raw 9223372036854775808 1", "'9223372036854775808' is no number"},
      {"part TEXT", "right would be: part none|\"TEXT\""},
      {R"(part "\q")", "unknown escape"},
      {R"(part "\x0")", "unknown escape"},
      {R"(part "x)", "the closing quote is missing"},
      {R"(part "x"y)", "no blank behind a closing quote"},
      {"fail", "right would be: fail CALL"},
      {"fail beepnow", "'beepnow' is no call; there are SetMarkerFunction"},
      {"fail BeepNow at 0", "'0' is no number from 1"},
      {"fail BeepNow once once", "right would be: fail CALL"},
      {"delay BeepNow", "right would be: delay CALL MS"},
      {"delay BeepNow -1", "'-1' is no number from 0"},
      {R"(say BeepNow "abc" length 4)", "'4' is no number from -2147483648 to 3"},
      {"trace", "right would be: trace on|quiet|off"},
      {"expect BeepNow within", "right would be: expect CALL"},
      {R"(host "a\nb")", "a command is one line"},
      {"unplug now", "right would be: unplug"},
      {"quit \"\"", "right would be: quit"},
  };
  const scratch_folder folder;
  device reader(folder.path + "/socket", nullptr);
  lines printed;
  verbs told(reader, [&](const std::string& line) { printed.push_back(line); });
  const auto state = [&] {
    printed.clear();
    EXPECT_EQ(told.run("show"), "");
    return printed;
  };
  const lines before = state();
  for (const auto& row : rows) {
    EXPECT_EQ(told.run(row.line).substr(0, row.error.size()), row.error) << row.line;
  }
  EXPECT_EQ(state(), before);
  EXPECT_FALSE(told.quit_requested());
  EXPECT_TRUE(told.expectations_held());
  EXPECT_EQ(told.run(" # a comment"), "");
  EXPECT_EQ(told.run("expect BeepNow within 1"), "") << "understood, and not held";
  EXPECT_FALSE(told.expectations_held());
}

TEST(VirtualReader, LeavesNothingBehind) {
  const scratch_folder folder;
  const loaded_library library(folder);
  const std::size_t before = open_descriptors();
  for (int cycle = 0; cycle < 1000; ++cycle) {
    device reader(folder.path + "/socket", nullptr);
    ASSERT_EQ(library.connect(), 1) << cycle;
    ASSERT_EQ(library.beep(), 1);
    reader.unplug();
    ASSERT_EQ(library.beep(), 0);
    reader.plug();
    ASSERT_EQ(library.connect(), 1);
  }
  EXPECT_EQ(library.beep(), 0);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_NE(access((folder.path + "/socket").c_str(), F_OK), 0);
}

}  // namespace
