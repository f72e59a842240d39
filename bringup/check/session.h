// One run of the check: the library at the far end of a pipe, the person at the terminal, and what
// was noted of both.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "caller.h"

namespace bringup {

// How an attempt ends that does not show that its expectation holds; the text says why.
struct does_not_hold : std::runtime_error {
  using runtime_error::runtime_error;
};
struct could_not_be_tried : std::runtime_error {
  using runtime_error::runtime_error;
};
// SIGINT, SIGTERM or SIGHUP came.
struct interrupted : std::exception {};

class session {
 public:
  struct options {
    std::string program, library, saved_configuration;
    bool person = true;
    std::chrono::seconds limit{10};  // for a call, and for what a person is asked to do
  };
  struct outcome {
    std::int64_t result;
    std::chrono::nanoseconds time;
    record bytes;
    std::string text;
    bool is_null;
  };
  // What the library has said through its marker function.
  struct saying {
    std::string call;  // "" between calls
    std::int64_t length;
    bool other_thread, after_removal;
  };

  explicit session(options chosen);
  ~session();
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  // Makes the call, in a new process with a reader connected as before if the last process has
  // ended. Throws does_not_hold when the call ends the process or exceeds the limit,
  // could_not_be_tried when the library lacks it.
  outcome call(function what, std::int16_t first = 0, std::int16_t second = 0,
               const record& given = {});
  // The call's error number, for a line of the table: "BeepNow 0 (error 3)".
  std::string failure(function what, std::int64_t result);

  // As the agent searches: whether a reader is connected afterwards. With `patience`, again and
  // again until it is, up to the limit.
  bool connect(bool patience = false);
  void need_reader() const;  // throws could_not_be_tried without one

  // Waits while the library may say and print what it likes.
  void pause(std::chrono::milliseconds);
  // Tries again every 250 ms, as the agent polls, until `done` or up to the limit; false then.
  template <typename T>
  bool within_limit(const T& done) {
    const auto until = std::chrono::steady_clock::now() + chosen.limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() >= until) return false;
      pause(std::chrono::milliseconds(250));
    }
    return true;
  }

  // Asks the person to do something; throws could_not_be_tried when nobody does.
  void please(const std::string& what);
  // Asks the person; throws could_not_be_tried when nobody answers.
  bool is_it_so(const std::string& question);

  // Lets the process end by itself for a moment, since the library may have to let go of a reader.
  // Returns how it ended. A call after that starts another.
  int end();

  // From now on signals are noted, but interrupt nothing.
  void hold_out() { holds_out = true; }

  const options chosen;
  std::vector<std::string> missing;                                    // functions
  std::map<std::string, std::vector<std::chrono::nanoseconds>> times;  // by call
  std::vector<saying> said;
  std::map<std::string, std::string> printed;  // on standard output, by call
  std::set<std::string> overruns;              // "GetFlags wrote 2 bytes behind its record"
  std::vector<record> saved;                   // the configuration as it was at first
  bool card_was_there = false, was_pulled_out = false;
  bool configuration_changed = false;  // and not yet put back

 private:
  void start();
  // Waits for bytes or the end of either descriptor; false when neither came in time.
  bool wait_for_library(std::chrono::steady_clock::time_point until, bool may_interrupt);
  void drain(const std::string& call);
  void take_up(const answer& told, const std::string& call);
  bool take_answer(answer* told, std::string* text);
  [[noreturn]] void give_up(const std::string& call);
  std::string answer_of_person(const std::string& prompt);

  pid_t process = -1;
  int control = -1, output = -1;
  std::string received;
  bool reader_wanted = false, holds_out = false;
  bool person_is_there;
  unsigned fill = 0;
};

}  // namespace bringup
