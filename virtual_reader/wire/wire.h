// What the library and the device say to each other, and those who tell a device what to do. Both
// send a greeting first. Then the library sends a message for each call, and the device answers it
// with one reply, before which it may send interim messages. One who tells verbs sends one message
// with them, and gets the lines that they answer, a message each, and one with the outcome. Nothing
// here throws but std::bad_alloc.
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

// How long a peer may take: to greet, and for a whole message or reply.
constexpr std::chrono::milliseconds greeting_limit{1000};
constexpr std::chrono::milliseconds message_limit{5000};

// What the result of a call is, for whoever writes it down.
enum result_kind : std::int64_t { no_result, status_result, number_result, text_result };

// Error numbers, 0 aside. A rule that lets a call fail may give any other.
enum error_number : std::int64_t {
  no_error = 0,
  no_reader_connected = 1,
  no_configuration_read = 2,
  held_by_another_agent = 3,
};

// A call: texts = {its name}, numbers = {result_kind, the error number with which the library fails
// the call itself, count of arguments, arguments ..., what the library adds of its own: what a
// Get copies out, what WriteCfg stores, the result if it is a number}.
// An answer: numbers = {message_kind, ...} as there.
struct message {
  std::vector<std::int64_t> numbers;
  std::vector<std::string> texts;
};

enum message_kind : std::int64_t {
  reply_message = 0,  // result, error number, whether calls that need no device are wanted, values
                      // ...; texts: the result, if the call returns a text that is not null
  patience_message = 1,  // the reply takes that many milliseconds longer than usual
  say_message = 2,       // length to tell, whether on a thread of its own; texts: what to say
  line_message = 3,      // to one who tells verbs. texts: one or more lines that they answer
  outcome_message = 4,   // to one who tells verbs: the status to end with; texts: why, line by line
};

// The most bytes of a call and of an answer; a peer that announces more is not listened to.
constexpr std::size_t call_size_limit = 4096;
constexpr std::size_t telling_size_limit = std::size_t{1} << 21;
constexpr std::size_t answer_size_limit = std::size_t{1} << 21;

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

// A stream to whoever listens on the path. -1 when nobody does, or, with EAGAIN, when whoever does
// is too busy to let more in within greeting_limit.
int connect_to(const std::string& path);

// Waits for what poll(2) calls `events`; false when that didn't come in time.
bool wait_for(int socket, short events, moment until);

// False when the peer has gone or did not take everything in time.
bool send_bytes(int socket, const void* bytes, std::size_t size, moment until);
bool send_message(int socket, const message& message, moment until);

// Nothing when the peer has gone, was late, or sent what is no message; `why` then says so.
std::optional<message> receive_message(int socket, std::size_t size_limit, moment until,
                                       std::string* why = nullptr);

// How a greeting begins: that of agents and devices, and that of those who tell verbs.
inline constexpr char agent_greeting[] = "VRdr";
inline constexpr char control_greeting[] = "VRtl";
struct greeting {
  std::string role;
  std::uint32_t version;
};
// Sends a greeting and returns the peer's; nothing when none came in time, and `why` then says so.
std::optional<greeting> exchange_greetings(int socket, const char* role,
                                           std::string* why = nullptr);

}  // namespace virtual_reader
