#include "call.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "quoted.h"

namespace virtual_reader {

namespace {

// Of times, in their unit: so that nobody's sums of some overflow, in nanoseconds too.
constexpr std::int64_t longest = 1'000'000'000'000'000;

// Takes a text apart from the left. Once something did not fit, nothing fits any more.
class scanner {
 public:
  explicit scanner(const std::string& scanned) : text(scanned) {}

  bool is_next(const std::string& wanted) const {
    return fits && text.compare(place, wanted.size(), wanted) == 0;
  }
  bool take_if(const std::string& wanted) {
    if (!is_next(wanted)) return false;
    place += wanted.size();
    return true;
  }
  void take(const std::string& wanted) { fits = take_if(wanted) && fits; }
  std::string take_word() {
    const std::size_t start = place;
    while (place < text.size() && text[place] != ' ') ++place;
    fits = fits && place > start;
    return text.substr(start, place - start);
  }
  bool is_number() const {
    const std::size_t digit = place + (text.compare(place, 1, "-") == 0 ? 1 : 0);
    return fits && digit < text.size() && text[digit] >= '0' && text[digit] <= '9';
  }
  std::int64_t take_number() {
    errno = 0;
    char* end = nullptr;
    fits = is_number();
    const std::int64_t number = fits ? std::strtoll(text.c_str() + place, &end, 10) : 0;
    fits = fits && errno == 0;
    if (fits) place = static_cast<std::size_t>(end - text.c_str());
    return number;
  }
  std::string take_quoted() try {
    fits = fits && text.compare(place, 1, "\"") == 0;
    return fits ? parse_quoted(text, &place) : std::string();
  } catch (const syntax_error&) {
    fits = false;
    return {};
  }
  // Numbers with a decimal point, in units of the last of so many digits behind it.
  std::int64_t take_decimal(int digits) {
    const std::int64_t whole = take_number();
    take(".");
    const std::size_t start = place;
    const std::int64_t part = take_number();
    fits = fits && whole >= 0 && part >= 0 && place - start == static_cast<std::size_t>(digits);
    std::int64_t unit = 1;
    for (int i = 0; i < digits; ++i) unit *= 10;
    fits = fits && whole <= longest / unit;
    return fits ? whole * unit + part : 0;
  }
  // " N N ..."
  std::vector<std::int64_t> take_numbers() {
    std::vector<std::int64_t> all;
    for (std::size_t before = place; take_if(" "); before = place) {
      if (!is_number()) {
        place = before;
        break;
      }
      all.push_back(take_number());
    }
    return all;
  }
  std::string rest() const { return text.substr(place); }
  bool all_fits() const { return fits && place == text.size(); }
  bool has_fit() const { return fits; }

 private:
  const std::string& text;
  std::size_t place = 0;
  bool fits = true;
};

std::string decimal(std::int64_t number, int digits) {
  std::string text = std::to_string(number);
  const auto least = static_cast<std::size_t>(digits) + 1;
  if (text.size() < least) text.insert(0, least - text.size(), '0');
  return text.insert(text.size() - static_cast<std::size_t>(digits), ".");
}

}  // namespace

const std::vector<std::string> call_names = {
    "SetMarkerFunction", "BeepNow",     "GetLastLibErr",       "SetLEDCtrl",
    "GetLEDCtrl",        "GetQueuedID", "GetQueuedID_index",   "USBDisconnect",
    "SetDevTypeSrch",    "usbConnect",  "getPartNumberString", "GetDevName",
    "ReadCfg",           "WriteCfg",    "GetIDBitCnts",        "SetIDBitCnts",
    "GetFlags",          "SetFlags",    "GetTimeParms",        "SetTimeParms",
    "GetFlags2",         "SetFlags2",   "ResetFactoryDflts"};

bool is_call(const std::string& name) {
  return std::find(call_names.begin(), call_names.end(), name) != call_names.end();
}

result_kind result_of(const std::string& name) {
  if (name == "SetMarkerFunction" || name == "USBDisconnect" || name == "SetDevTypeSrch") {
    return result_kind::none;
  }
  if (name == "GetLastLibErr" || name == "GetQueuedID_index") return result_kind::number;
  const bool is_text = name == "getPartNumberString" || name == "GetDevName";
  return is_text ? result_kind::text : result_kind::status;
}

std::string to_text(const event_line& entry) {
  return decimal(entry.time.count(), 6) + " " +
         (entry.agent == 0 ? "-" : std::to_string(entry.agent)) + " " + entry.text;
}

std::optional<event_line> parse_event(const std::string& line) {
  scanner left(line);
  event_line entry;
  entry.time = std::chrono::microseconds(left.take_decimal(6));
  left.take(" ");
  const std::int64_t agent = left.take_if("-") ? 0 : left.take_number();
  left.take(" ");
  if (!left.has_fit() || agent < 0 || agent > INT32_MAX || left.rest().empty()) return {};
  entry.agent = static_cast<int>(agent);
  entry.text = left.rest();
  return entry;
}

std::string to_text(const call& call) {
  std::string text = (call.has_ended ? "call " : "enter ") + call.name;
  const auto append = [&](const std::vector<std::int64_t>& numbers) {
    for (const std::int64_t number : numbers) text += " " + std::to_string(number);
  };
  append(call.arguments);
  if (call.has_result) text += " ->";
  if (call.has_text) text += " " + (call.text ? quoted(*call.text) : "null");
  append(call.values);
  if (call.took) text += " (" + decimal(call.took->count(), 3) + " ms)";
  return text;
}

std::optional<call> parse_call(const std::string& entry_text) {
  scanner left(entry_text);
  virtual_reader::call call;
  call.has_ended = !left.take_if("enter ");
  if (call.has_ended) left.take("call ");
  call.name = left.take_word();
  call.arguments = left.take_numbers();
  call.has_result = left.take_if(" ->");
  if (call.has_result) {
    call.has_text = left.is_next(" \"") || left.is_next(" null");
    if (left.is_next(" \"")) {
      left.take(" ");
      call.text = left.take_quoted();
    } else {
      left.take_if(" null");
    }
    call.values = left.take_numbers();
  }
  if (left.take_if(" (")) {
    call.took = std::chrono::microseconds(left.take_decimal(3));
    left.take(" ms)");
  }
  if (!left.all_fits()) return {};
  return call;
}

std::string to_text(const says& said) {
  std::string text = (said.own_thread ? "says thread " : "says ") + quoted(said.text);
  const bool is_whole = said.length == static_cast<std::int64_t>(said.text.size());
  return is_whole ? text : text + " length " + std::to_string(said.length);
}

std::optional<says> parse_says(const std::string& entry_text) {
  scanner left(entry_text);
  says said;
  left.take("says ");
  said.own_thread = left.take_if("thread ");
  said.text = left.take_quoted();
  said.length = static_cast<std::int64_t>(said.text.size());
  if (left.take_if(" length ")) said.length = left.take_number();
  const bool is_told =
      said.length >= INT32_MIN && said.length <= static_cast<std::int64_t>(said.text.size());
  if (!left.all_fits() || !is_told) return {};
  return said;
}

}  // namespace virtual_reader
