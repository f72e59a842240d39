// What the library, a device and control clients send each other: after a greeting, messages, each
// a text of a counted length.
//
//   library  `enter NAME ARGS`, and waits for the reply
//   device   `says ...`, to be said; `delayed MS`: the reply takes so much longer; last the reply,
//            `call NAME ARGS -> RESULT VALUES` (call.h)
//   client   verbs, a line each
//   device   `= LINE` for each line that they answer; last `passed`, or `failed` and why
//
// Nothing here throws but std::bad_alloc.
#pragma once

#include <sys/un.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace virtual_reader {

// To be raised with every change of what is sent.
constexpr std::uint32_t protocol_version = 1;

using moment = std::chrono::steady_clock::time_point;
constexpr moment never = moment::max();
inline moment in(std::chrono::milliseconds time) { return std::chrono::steady_clock::now() + time; }

// How long a peer may take for a greeting, a whole message or a reply.
constexpr std::chrono::milliseconds message_limit{5000};

// The most bytes of a call, and of other messages; a peer that announces more is cut off.
constexpr std::size_t call_size_limit = 4096;
constexpr std::size_t answer_size_limit = std::size_t{5} << 20;  // a text of a million escapes

// Closes what it holds.
class descriptor {
 public:
  explicit descriptor(int held = -1) : number(held) {}
  ~descriptor() { reset(); }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  void reset();

  int number;  // -1: none
};

// Sockets are non-blocking, closed on exec, raise no SIGPIPE and are never descriptor 0, 1 or 2.
// Both functions return -1 on failure, with errno set.
int new_socket();
// Takes over a descriptor, giving it the properties above.
int adopt_socket(int number);

// Nothing when the path is too long, with errno set.
std::optional<sockaddr_un> address_of(const std::string& path);

// A stream to the listener on the path. -1 without one, or, with EAGAIN, if it is too busy to
// accept within message_limit.
int connect_to(const std::string& path);

// Waits for what poll(2) calls `events`; false if there were none in time.
bool wait_for(int socket, short events, moment until);

// False if the peer hung up or did not take everything in time.
bool send_bytes(int socket, const void* bytes, std::size_t size, moment until);
bool send_message(int socket, const std::string& message, moment until);

// Nothing when the peer hung up, was late, or announced too much; `why` then says so.
std::optional<std::string> receive_message(int socket, std::size_t size_limit, moment until,
                                           std::string* why = nullptr);

// How a greeting begins: of agents and devices, and of control clients.
inline constexpr char agent_greeting[] = "VRdr";
inline constexpr char control_greeting[] = "VRtl";
struct greeting {
  std::string role;
  std::uint32_t version;
};
// Sends a greeting and returns the peer's; nothing without one in time, and `why` then says so.
std::optional<greeting> exchange_greetings(int socket, const char* role,
                                           std::string* why = nullptr);

}  // namespace virtual_reader
