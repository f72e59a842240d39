#include "rules.h"

#include <algorithm>

namespace virtual_reader {

bool rule_book::names(const std::string& call) const {
  return std::any_of(rules.begin(), rules.end(), [&](const rule& r) { return r.call == call; });
}

verdict rule_book::judge(const std::string& call) {
  verdict result;
  for (rule& r : rules) {
    const bool waits = r.what == rule::kind::fail && result.fail && r.first == 1;
    if (r.call != call || waits || ++r.seen < r.first) continue;
    switch (r.what) {
      case rule::kind::fail:
        if (!result.fail) result.error = r.error;
        result.fail = true;
        break;
      case rule::kind::vanish:
        result.vanish = true;
        break;
      case rule::kind::delay:
        result.delay += r.time;
        break;
      case rule::kind::hang:
        result.hang = true;
        break;
      case rule::kind::say:
        result.says.push_back(r);
        break;
    }
  }
  rules.erase(
      std::remove_if(rules.begin(), rules.end(), [](const rule& r) { return r.seen >= r.last; }),
      rules.end());
  return result;
}

}  // namespace virtual_reader
