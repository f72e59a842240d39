// What a line expects of the event log.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "tokens.h"

namespace virtual_reader {

// Matches events of one kind. Kinds whose events have a fixed form are checked completely when the
// pattern is read; `sent` and `received` take a whole line, or a regular expression in slashes.
class pattern {
 public:
  // Takes tokens up to the end or to `within MS`. Throws syntax_error if no event can match.
  explicit pattern(tokens* line);

  bool matches(const std::string& event_text) const;
  const std::string kind;
  const std::string& text() const { return written; }

  // What events begin with.
  static std::vector<std::string> kinds();
  // What an application makes the reader do.
  static const std::vector<std::string>& effects();

 private:
  using test = std::function<bool(const std::string& details)>;
  test read_line(tokens* line);
  test read_settings(tokens* line);
  test read_card(tokens* line);
  test read_details(tokens* line, const std::string& form);

  std::string written;  // as events have it
  test fits;            // what follows the kind
};

struct expectation {
  enum class form {
    next,        // the next event, of a strict kind; else as eventually
    eventually,  // some later event
    no,          // no event
    nothing,     // no effect
    state,       // what the LED shows
  };
  // Takes `[eventually|no] PATTERN [within MS]`, `led is COLOR [within MS]` or `nothing for MS`,
  // and the end. Throws syntax_error.
  explicit expectation(tokens* line);

  form what;
  std::vector<pattern> wanted;  // one, or none
  std::string led;              // state
  std::chrono::milliseconds limit;

  bool is_positive() const { return what != form::no && what != form::nothing; }
  // The kind of effects that it names, for a script to be strict about; else nothing.
  std::string effect() const;
  std::string text() const;
};

}  // namespace virtual_reader
