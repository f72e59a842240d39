// The verbs of the language.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "session.h"

namespace virtual_reader {

struct verb;

// A valid line: what it does, which is nothing if the line is empty.
struct command {
  std::string text;  // the line without the spaces around it
  const verb* what = nullptr;
  std::function<void(reader&)> change;  // one of both
  std::function<void(const session&)> act;
  bool acts = false;  // on the reader or the application: a step of a script may begin here
  bool presents_card = false;
  bool waits = false;  // so that a script may repeat it
  std::optional<expectation> expected;
  std::uint64_t loops = 0;  // `loop`: how often the script is played in all; 0: for ever
};

// The effects that a script names in what it expects.
std::set<std::string> named_effects(const std::vector<command>& script);

// Throws syntax_error, with one line that says what is wrong and what would be right.
command parse(const std::string& line);

// Whether the line is of that verb.
bool is_verb(const command& told, const std::string& name);

}  // namespace virtual_reader
