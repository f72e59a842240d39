#include "rules.h"

#include <algorithm>

namespace virtual_reader {

verdict judge(std::vector<rule>* rules, const std::string& call) {
  verdict result;
  for (rule& r : *rules) {
    const bool waits = r.what == rule::kind::fail && result.fail && r.first == 1;
    if (r.call != call || waits || ++r.seen < r.first) continue;
    if (r.what == rule::kind::fail && !result.fail) result.error = r.error;
    result.fail |= r.what == rule::kind::fail;
    result.vanish |= r.what == rule::kind::vanish;
    result.hang |= r.what == rule::kind::hang;
    if (r.what == rule::kind::delay) result.delay += r.time;
    if (r.what == rule::kind::say) result.says.push_back(r);
  }
  const auto used_up = [](const rule& r) { return r.seen >= r.last; };
  rules->erase(std::remove_if(rules->begin(), rules->end(), used_up), rules->end());
  return result;
}

}  // namespace virtual_reader
