// The verbs of the virtual reader, a line each, whatever the line. A wrong one is answered with one
// line and changes nothing.
#include <cstdint>
#include <sstream>

#include "fuzzing.h"
#include "verbs.h"

namespace {

using namespace virtual_reader;

std::string in_words(const reader& now) {
  std::ostringstream text;
  text << now.plugged << ' ' << now.queue.size() << ' ' << now.held.has_value() << ' '
       << now.faults.list().size() << ' ' << now.part_number.value_or("none");
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static device reader;
  expectations cursor(reader);
  session_callbacks around;
  around.answer = [](const std::string& line) {
    require(line.find('\n') == std::string::npos, "it answers line by line");
  };
  around.quit = [] {};
  around.is_interrupted = [] { return true; };  // for what no agent is here to do
  const session told(reader, cursor, around);

  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; std::getline(input, line);) {
    const std::string before = reader.read(in_words);
    try {
      told.execute(line);
    } catch (const syntax_error& error) {
      require(std::string(error.what()).find('\n') == std::string::npos, "an error is one line");
      require(reader.read(in_words) == before, "a wrong verb changes nothing");
    } catch (const failed_expectation&) {
    } catch (const cancelled&) {
    }
  }
  for (const auto& entry : reader.log.last(100, [](const auto&) { return true; })) {
    require(entry.text.find('\n') == std::string::npos, "an entry is one line");
    const auto read = parse_event(to_text(static_cast<const event_line&>(entry)));
    require(read && read->text == entry.text && read->time == entry.time, "it can be read back");
  }
  reader.modify([&](auto& now) {
    now.unplug(), now.plug(), now.hold({});
    now.queue = {}, now.faults.clear();
    now.part_number.reset();
  });
  return 0;
}
