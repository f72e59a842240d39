#include "rules.h"

#include <algorithm>
#include <set>

#include "record_text.h"

namespace virtual_reader {

std::string to_text(const rule& r) {
  switch (r.what) {
    case rule::kind::fail:
      return "fail " + r.call + " error " + std::to_string(r.error);
    case rule::kind::vanish:
      return "vanish " + r.call;
    case rule::kind::delay:
      return "delay " + r.call + " " + std::to_string(r.time.count());
    case rule::kind::hang:
      return "hang " + r.call;
    case rule::kind::say:
      break;
  }
  return "say " + r.call + to_text(says_text{r.text, r.length, r.own_thread}).substr(4);
}

void rules::add(rule added) {
  const auto is_replaced = [&](const rule& each) {
    return each.what == rule::kind::delay && added.what == each.what && added.call == each.call;
  };
  all.erase(std::remove_if(all.begin(), all.end(), is_replaced), all.end());
  added.id = ++last_id;
  all.push_back(std::move(added));
}

void rules::clear(const std::string& call) {
  const auto is_of_it = [&](const rule& each) { return each.call == call; };
  all.erase(std::remove_if(all.begin(), all.end(), is_of_it), all.end());
}

void rules::clear(std::uint64_t id) {
  const auto is_it = [&](const rule& each) { return each.id == id; };
  all.erase(std::remove_if(all.begin(), all.end(), is_it), all.end());
}

std::vector<rule> rules::take_due(const std::string& call) {
  std::vector<rule> due;
  std::set<rule::kind> struck;
  for (rule& each : all) {
    if (each.call != call) continue;
    const bool one_at_a_time = each.what == rule::kind::fail || each.what == rule::kind::hang;
    if (one_at_a_time && each.first == 1 && struck.count(each.what) != 0) continue;
    if (++each.seen < each.first) continue;
    struck.insert(each.what);
    due.push_back(each);
  }
  const auto is_used_up = [](const rule& each) { return each.seen >= each.last; };
  all.erase(std::remove_if(all.begin(), all.end(), is_used_up), all.end());
  return due;
}

bool rules::concern(const std::string& call) const {
  return std::any_of(all.begin(), all.end(), [&](const rule& each) { return each.call == call; });
}

}  // namespace virtual_reader
