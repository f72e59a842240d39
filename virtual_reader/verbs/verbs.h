// The verbs of the language.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace virtual_reader {

struct verb;

// A line that is right: what it does, which is nothing if the line is empty.
struct command {
  std::string text;  // the line without blanks around it
  const verb* what = nullptr;
  std::function<void(reader&)> change;  // one of both
  std::function<void(const session&)> act;
  bool rests = false;  // takes its time, so that one may begin again
};

// Throws syntax_error, with one line that says what is wrong and what would be right.
command parse(const std::string& line);

// Whether the line is of that verb.
bool is_verb(const command& told, const std::string& name);

// What may stand at the end of the line in place of its last word, which may be empty.
std::vector<std::string> completions(const std::string& line);

}  // namespace virtual_reader
