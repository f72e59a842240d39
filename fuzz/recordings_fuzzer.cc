// Recordings of a reader library, as people attach them to what they report: any bytes. Whatever
// can be read can be played back and told as verbs, and a host that does what was done then is
// answered as then.
#include <cstdint>
#include <sstream>

#include "fuzzing.h"
#include "replay.h"
#include "scenario.h"
#include "verbs.h"

namespace {

using namespace virtual_reader;

constexpr int agent = 1;

// A reader that plays them, and makes what is asked of it.
class player {
 public:
  explicit player(const std::vector<recorded_call>& calls) : recording(calls) {}

  // Returns the rules for the call, and what it fetched.
  std::pair<std::vector<fault>, std::array<std::int64_t, 33>> make(const recorded_call& wanted) {
    call asked{wanted.name, wanted.arguments};
    auto due = recording.prepare(agent, asked, &playing);
    playing.run(agent, &asked, std::nullopt);
    return {std::move(due), playing.agents[agent].id};
  }
  bool has_told(const std::string& what) const {
    const auto is_it = [&](const auto& entry) { return entry.text.rfind(what, 0) == 0; };
    return !log.last(1, is_it).empty();
  }

  event_log log;
  reader playing{log};

 private:
  replay recording;
};

void play_as_it_was(const std::vector<recorded_call>& calls) {
  player same(calls);
  for (const recorded_call& each : calls) {
    const bool is_connected = same.playing.holder == agent;
    const auto [due, fetched] = same.make(each);
    bool fails = false, hangs = false;
    for (const fault& one : due) {
      fails |= one.what == fault::kind::fail;
      hangs |= one.what == fault::kind::hang;
      require(one.time <= fault::longest, "no call takes longer than a rule can say");
      require(one.length <= static_cast<std::int64_t>(one.text.size()), "no text is told too long");
    }
    require(fails == each.has_failed() && hangs != each.has_ended, "a call ends as it did");
    if (is_connected && each.is_poll() && each.card) {
      const auto& values = each.card->values;
      require(std::equal(values.begin(), values.end(), fetched.begin(), fetched.end()),
              "a poll finds the card that it found");
    }
  }
  require(!same.has_told("replay diverged"), "who does the same does not part with it");
  recorded_call another;
  another.name = "GetLastLibErr";
  same.make(another);
  require(same.has_told("replay ended"), "it has an end");
}

void play_otherwise(const std::vector<recorded_call>& calls) {
  player other(calls);
  for (auto each = calls.rbegin(); each != calls.rend(); ++each) other.make(*each);
  for (const auto& entry : other.log.last(100, [](const auto&) { return true; })) {
    require(entry.text.find('\n') == std::string::npos, "an entry is one line");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream input("# card reader recording 1\n" +
                           std::string(reinterpret_cast<const char*>(data), size));
  std::vector<recorded_call> calls;
  try {
    calls = read_recording(input, "input");
  } catch (const std::runtime_error& error) {
    const std::string why = error.what();
    require(why.rfind("input", 0) == 0 && why.find('\n') == std::string::npos, "one line says why");
    return 0;
  }
  for (const recorded_call& each : calls) {
    const auto read = parse_call(to_text(static_cast<const call&>(each)));
    require(read && to_text(*read) == to_text(static_cast<const call&>(each)),
            "a call can be written and read");
  }
  for (const std::string& line : to_scenario(to_events(calls))) parse(line);
  play_as_it_was(calls);
  play_otherwise(calls);
  return 0;
}
