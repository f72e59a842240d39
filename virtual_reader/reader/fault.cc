#include "fault.h"

#include <algorithm>
#include <set>

#include "call.h"

namespace virtual_reader {

std::string to_text(const fault& r) {
  switch (r.what) {
    case fault::kind::fail:
      return "fail " + r.call + " error " + std::to_string(r.error);
    case fault::kind::vanish:
      return "vanish " + r.call;
    case fault::kind::delay:
      return "delay " + r.call + " " + std::to_string(r.time.count());
    case fault::kind::hang:
      return "hang " + r.call;
    case fault::kind::say:
      break;
  }
  return "say " + r.call + to_text(says{r.text, r.length, r.own_thread}).substr(4);
}

void fault_list::add(fault added) {
  const auto is_replaced = [&](const fault& each) {
    return each.what == fault::kind::delay && added.what == each.what && added.call == each.call;
  };
  all.erase(std::remove_if(all.begin(), all.end(), is_replaced), all.end());
  added.id = ++last_id;
  all.push_back(std::move(added));
}

void fault_list::clear(const std::string& call) {
  const auto is_of_it = [&](const fault& each) { return each.call == call; };
  all.erase(std::remove_if(all.begin(), all.end(), is_of_it), all.end());
}

void fault_list::clear(std::uint64_t id) {
  const auto is_it = [&](const fault& each) { return each.id == id; };
  all.erase(std::remove_if(all.begin(), all.end(), is_it), all.end());
}

std::vector<fault> fault_list::take_due(const std::string& call) {
  std::vector<fault> due;
  std::set<fault::kind> struck;
  for (fault& each : all) {
    if (each.call != call) continue;
    const bool one_at_a_time = each.what == fault::kind::fail || each.what == fault::kind::hang;
    if (one_at_a_time && each.first == 1 && struck.count(each.what) != 0) continue;
    if (++each.seen < each.first) continue;
    struck.insert(each.what);
    due.push_back(each);
  }
  const auto is_used_up = [](const fault& each) { return each.seen >= each.last; };
  all.erase(std::remove_if(all.begin(), all.end(), is_used_up), all.end());
  return due;
}

bool fault_list::concern(const std::string& call) const {
  return std::any_of(all.begin(), all.end(), [&](const fault& each) { return each.call == call; });
}

}  // namespace virtual_reader
