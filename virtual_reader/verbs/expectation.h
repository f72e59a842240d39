// What is expected of the record.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "event_log.h"
#include "tokens.h"

namespace virtual_reader {

// Words of which an entry has the first at its beginning and the others after it, in that order.
class pattern {
 public:
  // Takes words up to the end or to `within MS`. Throws syntax_error when no entry can begin so.
  explicit pattern(tokens* given);

  bool matches(const std::string& entry_text) const;
  std::string text() const;  // as it was written

  // What the entries of the record begin with.
  static const std::vector<std::string>& kinds();
  // What may follow a kind, if there are a few words only.
  static std::vector<std::string> details_of(const std::string& kind);

 private:
  struct word {
    std::string plain;   // what stands in the entry
    std::string quotes;  // or this; nothing if it was not in quotes
  };
  std::vector<word> all;
};

struct expectation {
  // Takes `[no] PATTERN [within MS]`, and the end. Throws syntax_error.
  explicit expectation(tokens* given);

  const bool is_negative;
  const pattern wanted;
  const std::chrono::milliseconds limit;

  std::string text() const;
};

}  // namespace virtual_reader
