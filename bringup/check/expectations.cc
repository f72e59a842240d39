#include "expectations.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <system_error>

#include "quoted.h"

namespace bringup {

namespace {

using std::to_string;
using clock = std::chrono::steady_clock;
using virtual_reader::quoted;

constexpr std::chrono::milliseconds poll_interval{250};

struct record_kind {
  function get, set;
  std::size_t changed;  // the byte at which a field begins that may be changed for a moment
};
constexpr record_kind kinds[] = {
    {function::GetIDBitCnts, function::SetIDBitCnts, 6},
    {function::GetFlags, function::SetFlags, 14},
    {function::GetTimeParms, function::SetTimeParms, 2},
    {function::GetFlags2, function::SetFlags2, 10},
    {function::GetLEDCtrl, function::SetLEDCtrl, 2},
};
constexpr record_kind flags_kind = kinds[1];

void demand(bool holds, const std::string& otherwise) {
  if (!holds) throw does_not_hold(otherwise);
}

std::string in_milliseconds(std::chrono::nanoseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(time.count()) / 1e6);
  return text;
}

std::string join(const std::vector<std::string>& all) {
  std::string text;
  for (const std::string& each : all) text += (text.empty() ? "" : "; ") + each;
  return text;
}

int field(const record& from, std::size_t byte) {
  std::int16_t value;
  std::memcpy(&value, &from[byte], sizeof value);
  return value;
}

// Makes a call whose status must not be 0.
session::outcome succeed(session& s, function what, std::int16_t first = 0, std::int16_t second = 0,
                         const record& given = {}) {
  const auto told = s.call(what, first, second, given);
  if (told.result == 0) throw does_not_hold(s.failure(what, 0));
  return told;
}

void connect(session& s, const std::string& when) {
  if (!s.connect(true)) throw does_not_hold(when + s.failure(function::usbConnect, 0));
}

record get(session& s, function what, const record& before = {}) {
  return succeed(s, what, 0, 0, before).bytes;
}

// Before anything is tried with it: that it can be loaded has a line of its own.
void load_configuration(session& s) {
  if (s.call(function::ReadCfg).result == 0) throw could_not_be_tried("ReadCfg fails");
}

void demand_same(const char* call, const record& expected, const record& found) {
  for (std::size_t byte = 0; byte < expected.size(); byte += 2) {
    demand(field(expected, byte) == field(found, byte),
           call + (": the field at byte " + to_string(byte)) + " is " +
               to_string(field(found, byte)) + " instead of " + to_string(field(expected, byte)));
  }
}

// --- cards ---

struct poll {
  std::int64_t status, bits;
  std::array<unsigned char, 32> bytes;
  std::chrono::nanoseconds time;

  bool has_card() const {
    return status != 0 &&
           (bits != 0 || std::any_of(bytes.begin(), bytes.end(), [](int b) { return b; }));
  }
  // The digits that its bits need, and the bits.
  std::string text() const {
    std::string digits;
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::int64_t>(std::max<std::int64_t>(bits, 0), 256) + 3) /
        4;
    for (std::size_t i = bits > 0 ? count : 64; i-- > 0;) {
      digits += "0123456789ABCDEF"[bytes[i / 2] >> i % 2 * 4 & 15];
    }
    return digits + "/" + to_string(bits);
  }
};

poll poll_once(session& s) {
  const auto fetched = s.call(function::GetQueuedID, 1, 0);
  const auto length = s.call(function::GetQueuedID_index, 32);
  poll found{fetched.result, length.result, {}, fetched.time + length.time};
  for (std::size_t i = 0; i < found.bytes.size(); ++i) {
    const auto byte = s.call(function::GetQueuedID_index, static_cast<std::int16_t>(i));
    found.bytes[i] = static_cast<unsigned char>(byte.result);
    found.time += byte.time;
  }
  return found;
}

poll poll_of_a_reader(session& s) {
  const poll found = poll_once(s);
  if (found.status == 0) throw does_not_hold(s.failure(function::GetQueuedID, 0));
  return found;
}

// --- what a person sees and hears ---

using attempt = std::function<std::string(session&)>;

attempt beep(std::int16_t count, std::int16_t is_long, const char* question) {
  return [=](session& s) -> std::string {
    const auto told = succeed(s, function::BeepNow, count, is_long);
    demand(s.is_it_so(question),
           "BeepNow returned " + to_string(told.result) + ", but they were not heard");
    return {};
  };
}

// With the record that the agent sends: the application rules over the LED or not, red, green.
attempt led(std::int16_t ruled, std::int16_t red, std::int16_t green, const char* question) {
  return [=](session& s) -> std::string {
    const std::int16_t fields[] = {ruled, red, green, 0, 0, 0, 0, 1};
    record given;
    std::memcpy(given.data(), fields, sizeof fields);
    const auto told = succeed(s, function::SetLEDCtrl, 0, 0, given);
    demand(s.is_it_so(question),
           "SetLEDCtrl returned " + to_string(told.result) + ", but it is not seen");
    return {};
  };
}

// Whether the person has done it: false if it was left out.
bool has_done(session& s, const char* what) try {
  s.please(what);
  return true;
} catch (const could_not_be_tried&) {
  return false;
}

void need_card(const session& s) {
  if (!s.card_was_there) throw could_not_be_tried("no card was there");
}

std::string text_of(const session::saying& each) {
  return (each.call.empty() ? "between calls" : each.call) + " (" + to_string(each.length) +
         " bytes" + (each.other_thread ? ", another thread" : "") + ")";
}

// --- writing ---

// What is there is saved before the first change.
void prepare_to_write(session& s) {
  if (s.chosen.saved_configuration.empty()) throw could_not_be_tried("only with --write");
  s.need_reader();
  if (!s.saved.empty()) return;
  const std::vector<record> all = read_configuration(s);
  save_configuration(s.chosen.saved_configuration, all);
  s.saved = all;
}

record changed(record given, const record_kind& kind) {
  given[kind.changed] ^= 1;
  return given;
}

int count_differences(const std::vector<record>& before, const std::vector<record>& after) {
  int fields = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    for (std::size_t byte = 0; byte < sizeof(record); byte += 2) {
      fields += field(before[i], byte) != field(after[i], byte);
    }
  }
  return fields;
}

constexpr bool alone = false, with_reader = true;

}  // namespace

const std::vector<expectation> expectations = {
    {"every function is there", alone,
     [](session& s) -> std::string {
       demand(s.missing.empty(), "it lacks " + join(s.missing));
       return {};
     }},
    {"SetMarkerFunction sets, removes and sets again", alone,
     [](session& s) -> std::string {
       for (const bool is_set : {true, false, true}) s.call(function::SetMarkerFunction, is_set);
       return {};
     }},
    {"USBDisconnect returns when nothing is connected", alone,
     [](session& s) -> std::string {
       s.call(function::USBDisconnect);
       s.call(function::USBDisconnect);
       return {};
     }},
    {"usbConnect gives 0 when no reader is plugged in", alone,
     [](session& s) -> std::string {
       const bool unplugged = has_done(s, "Pull the reader out, if it is plugged in.");
       const auto is_out = [&] { return !s.connect(); };
       if (unplugged ? s.within_limit(is_out) : is_out()) return {};
       s.call(function::USBDisconnect);
       if (!unplugged) throw could_not_be_tried("a reader is plugged in");
       throw does_not_hold("usbConnect goes on to connect");
     }},
    {"calls fail while no reader is connected", alone,
     [](session& s) -> std::string {
       s.call(function::USBDisconnect);
       std::vector<std::string> wrong;
       for (const function what : {function::GetQueuedID, function::BeepNow, function::ReadCfg}) {
         const auto told = s.call(what, 1, 0);
         if (told.result != 0)
           wrong.push_back(name_of(what) + (" gives " + to_string(told.result)));
       }
       demand(wrong.empty(), join(wrong));
       return {};
     }},
    {"GetLastLibErr gives a number after a failure", alone,
     [](session& s) -> std::string {
       if (s.call(function::BeepNow, 1, 0).result != 0) throw could_not_be_tried("no call failed");
       const std::int64_t number = s.call(function::GetLastLibErr).result;
       demand(number != 0, "it is 0 after a failed BeepNow");
       return "it is " + to_string(number) + " after a failed BeepNow";
     }},
    {"usbConnect connects the reader", alone,
     [](session& s) -> std::string {
       const bool plugged = has_done(s, "Plug the reader in, with no card near it.");
       if (!s.connect(plugged)) {
         if (!plugged) throw could_not_be_tried("no reader is plugged in");
         throw does_not_hold(s.failure(function::usbConnect, 0));
       }
       return "GetLastLibErr is " + to_string(s.call(function::GetLastLibErr).result) +
              " after that";
     }},
    {"the part number stays valid until the next call", with_reader,
     [](session& s) -> std::string {
       const auto told = s.call(function::getPartNumberString);
       if (told.is_null) return "it has none (null)";
       s.pause(poll_interval);
       const auto later = s.call(function::getPartNumberString_read_again);
       demand(told.text == later.text,
              quoted(told.text) + " became " + quoted(later.text) + " without a call");
       return quoted(told.text);
     }},
    {"a reader that was disconnected connects again", with_reader,
     [](session& s) -> std::string {
       connect(s, "after USBDisconnect: ");
       return {};
     }},
    {"a poll without a card succeeds, with an ID of zeros", with_reader,
     [](session& s) -> std::string {
       for (int i = 0; i < 3; ++i) {
         const poll found = poll_of_a_reader(s);
         demand(!found.has_card(), "the ID is " + found.text());
       }
       return {};
     }},
    {"a poll takes less than 250 ms", with_reader,
     [](session& s) -> std::string {
       std::vector<std::chrono::nanoseconds> times;
       for (int i = 0; i < 8; ++i) {
         times.push_back(poll_of_a_reader(s).time);
         s.pause(poll_interval);
       }
       std::sort(times.begin(), times.end());
       const auto median = times[times.size() / 2];
       const std::string told =
           "median " + in_milliseconds(median) + ", most " + in_milliseconds(times.back());
       demand(median < poll_interval, told);
       return told;
     }},
    {"ReadCfg reads the configuration", with_reader,
     [](session& s) -> std::string {
       succeed(s, function::ReadCfg);
       return {};
     }},
    {"ReadCfg and each Get give the same twice", with_reader,
     [](session& s) -> std::string {
       const std::vector<record> before = read_configuration(s);
       load_configuration(s);
       std::vector<std::string> sizes;
       for (std::size_t i = 0; i < before.size(); ++i) {
         const record_kind& kind = kinds[i];
         const record first = get(s, kind.get);
         demand_same(name_of(kind.get), before[i], first);
         demand_same(name_of(kind.get), first, get(s, kind.get));
         // What is left as it was shows how long the library's own record is.
         record ones;
         ones.fill(0xFF);
         const record over_ones = get(s, kind.get, ones);
         std::size_t size = first.size();
         while (size > 0 && first[size - 1] != over_ones[size - 1]) --size;
         sizes.push_back(name_of(kind.get) + (" " + to_string(size)) + " bytes");
       }
       return join(sizes);
     }},
    {"Get gives what Set was given, without WriteCfg", with_reader,
     [](session& s) -> std::string {
       const std::vector<record> before = read_configuration(s);
       for (std::size_t i = 0; i < before.size(); ++i) {
         for (const record& given : {changed(before[i], kinds[i]), before[i]}) {
           succeed(s, kinds[i].set, 0, 0, given);
           demand_same(name_of(kinds[i].get), given, get(s, kinds[i].get));
         }
       }
       return {};
     }},
    {"two short beeps are heard", with_reader, beep(2, 0, "Did it beep twice, shortly?")},
    {"a long beep is heard", with_reader, beep(1, 1, "Did it beep once, for long?")},
    {"the LED turns red", with_reader, led(1, 1, 0, "Is the LED red?")},
    {"the LED turns green", with_reader, led(1, 0, 1, "Is the LED green?")},
    {"the LED turns amber", with_reader, led(1, 1, 1, "Is the LED amber?")},
    {"the LED turns off", with_reader, led(1, 0, 0, "Is the LED off?")},
    {"the LED goes back to the reader", with_reader,
     led(0, 0, 0, "Is the LED as it is when the reader has just been plugged in?")},
    {"a card that is held up is reported", with_reader,
     [](session& s) -> std::string {
       s.please("Hold a card up, and keep it there until the next question.");
       poll found{};
       demand(s.within_limit([&] { return (found = poll_of_a_reader(s)).has_card(); }),
              "no card came");
       s.card_was_there = true;
       demand(found.bits >= 0 && found.bits <= 256,
              "its length is " + to_string(found.bits) + " bits");
       return found.text();
     }},
    {"a card that is kept there is reported at every poll", with_reader,
     [](session& s) -> std::string {
       need_card(s);
       s.please("Keep the card there, or hold it up again.");
       demand(s.within_limit([&] { return poll_of_a_reader(s).has_card(); }), "no card came");
       const auto begin = clock::now();
       clock::duration last{0};
       int polls = 0, reports = 0;
       for (; polls < 12; ++polls) {
         s.pause(poll_interval);
         if (!poll_of_a_reader(s).has_card()) continue;
         ++reports;
         last = clock::now() - begin;
       }
       const std::string told = "at " + to_string(reports) + " of " + to_string(polls) +
                                " polls, for " + in_milliseconds(last);
       demand(reports == polls, told);
       return told;
     }},
    {"a card that was taken away is reported no more", with_reader,
     [](session& s) -> std::string {
       need_card(s);
       s.please("Take the card away.");
       int polls = 0;
       const bool gone = s.within_limit([&] {
         ++polls;
         return !poll_of_a_reader(s).has_card();
       });
       demand(gone, "it was still reported");
       s.pause(poll_interval);
       demand(!poll_of_a_reader(s).has_card(), "it came back");
       return "gone at poll " + to_string(polls);
     }},
    {"WriteCfg stores the configuration", alone,
     [](session& s) -> std::string {
       prepare_to_write(s);
       const std::vector<record> before = read_configuration(s);
       const record given = changed(before[1], flags_kind);
       s.configuration_changed = true;
       succeed(s, flags_kind.set, 0, 0, given);
       const auto told = succeed(s, function::WriteCfg);
       connect(s, "after WriteCfg: ");
       demand_same("GetFlags after WriteCfg", given, read_configuration(s)[1]);
       return in_milliseconds(told.time);
     }},
    {"ResetFactoryDflts succeeds and leaves a reader", alone,
     [](session& s) -> std::string {
       prepare_to_write(s);
       const std::vector<record> before = read_configuration(s);
       s.configuration_changed = true;
       const auto told = succeed(s, function::ResetFactoryDflts);
       connect(s, "after ResetFactoryDflts: ");
       return in_milliseconds(told.time) + "; " +
              to_string(count_differences(before, read_configuration(s))) + " fields changed";
     }},
    {"the configuration is put back", alone,
     [](session& s) -> std::string {
       if (!s.configuration_changed) throw could_not_be_tried("nothing was written");
       put_back(s, s.saved);
       s.configuration_changed = false;
       return {};
     }},
    {"a poll fails when the reader was pulled out", with_reader,
     [](session& s) -> std::string {
       s.please("Pull the reader out.");
       s.was_pulled_out = true;
       const auto begin = clock::now();
       poll found{};
       demand(s.within_limit([&] { return (found = poll_once(s)).status == 0; }),
              "polls go on to succeed");
       std::vector<std::string> told = {
           in_milliseconds(clock::now() - begin) + " after it was asked for",
           "the poll took " + in_milliseconds(found.time),
           s.failure(function::GetQueuedID, found.status)};
       for (const function what :
            {function::BeepNow, function::SetLEDCtrl, function::ReadCfg, function::GetFlags}) {
         told.push_back(s.failure(what, s.call(what, 1, 0).result));
       }
       demand(!s.connect(), "usbConnect still connects");
       return join(told);
     }},
    {"a reader that was plugged in again connects", alone,
     [](session& s) -> std::string {
       if (!s.was_pulled_out) throw could_not_be_tried("it was not pulled out");
       s.please("Plug the reader in again.");
       connect(s, "");
       poll_of_a_reader(s);
       return {};
     }},
    {"texts come during calls, on the caller's thread", alone,
     [](session& s) -> std::string {
       std::set<std::string> right, wrong;
       for (const session::saying& each : s.said) {
         if (each.after_removal) continue;
         (each.call.empty() || each.other_thread ? wrong : right).insert(text_of(each));
       }
       demand(wrong.empty(), join({wrong.begin(), wrong.end()}));
       if (right.empty()) throw could_not_be_tried("the library said nothing");
       return join({right.begin(), right.end()});
     }},
    {"no text comes once the marker function is removed", alone,
     [](session& s) -> std::string {
       const bool any = !s.said.empty();
       s.call(function::SetMarkerFunction, 0);
       s.connect();
       s.call(function::BeepNow, 1, 0);
       s.pause(2 * poll_interval);
       for (const session::saying& each : s.said) demand(!each.after_removal, text_of(each));
       if (!any) throw could_not_be_tried("the library said nothing before either");
       return {};
     }},
    {"Get and Set write within the 16 bytes of a record", alone,
     [](session& s) -> std::string {
       demand(s.overruns.empty(), join({s.overruns.begin(), s.overruns.end()}));
       if (s.times.count("GetFlags") == 0) throw could_not_be_tried("no record was read");
       return {};
     }},
    {"nothing is printed on standard output", alone,
     [](session& s) -> std::string {
       s.end();  // it may print then, too
       std::vector<std::string> all;
       for (const auto& [call, text] : s.printed) all.push_back(call + ": " + quoted(text));
       demand(all.empty(), join(all));
       return {};
     }},
};

std::vector<record> read_configuration(session& s) {
  load_configuration(s);
  std::vector<record> all;
  for (const record_kind& kind : kinds) all.push_back(get(s, kind.get));
  return all;
}

void put_back(session& s, const std::vector<record>& all) {
  connect(s, "");
  succeed(s, function::ReadCfg);
  for (std::size_t i = 0; i < all.size(); ++i) succeed(s, kinds[i].set, 0, 0, all[i]);
  succeed(s, function::WriteCfg);
  connect(s, "after WriteCfg: ");
  const std::vector<record> found = read_configuration(s);
  for (std::size_t i = 0; i < all.size(); ++i) demand_same(name_of(kinds[i].get), all[i], found[i]);
}

void save_configuration(const std::string& path, const std::vector<record>& all) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  std::FILE* const file = descriptor < 0 ? nullptr : fdopen(descriptor, "w");
  if (!file) throw std::system_error(errno, std::generic_category(), path);
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::fputs(name_of(kinds[i].set), file);
    for (std::size_t byte = 0; byte < sizeof(record); byte += 2) {
      std::fprintf(file, " %d", field(all[i], byte));
    }
    std::fputs("\n", file);
  }
  if (std::fclose(file) != 0) throw std::system_error(errno, std::generic_category(), path);
}

std::vector<record> saved_configuration(const std::string& path) {
  std::ifstream file(path);
  std::vector<record> all;
  for (const record_kind& kind : kinds) {
    std::string line, name;
    std::getline(file, line);
    std::istringstream words(line);
    words >> name;
    record given;
    for (std::size_t byte = 0; byte < given.size(); byte += 2) {
      std::int16_t value = 0;
      words >> value;
      std::memcpy(&given[byte], &value, sizeof value);
    }
    if (!words || name != name_of(kind.set)) {
      throw std::runtime_error(path + " holds no configuration that --write has saved");
    }
    all.push_back(given);
  }
  return all;
}

}  // namespace bringup
