// The verbs of the virtual reader, a line each, whatever the line. A wrong one is answered with one
// line and changes nothing.
#include <cstdint>
#include <sstream>

#include "fuzzing.h"
#include "verbs.h"

namespace {

using namespace virtual_reader;

std::string in_words(const device& reader) {
  const device::state now = reader.look();
  std::ostringstream text;
  text << now.plugged << ' ' << now.queue.size() << ' ' << now.held.has_value() << ' '
       << now.faults.size() << ' ' << static_cast<int>(now.traced) << ' '
       << now.part_number.value_or("none");
  return text.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const scratch_folder folder;
  static device reader(folder.path + "/socket", nullptr);
  verbs interpreter(reader, [](const std::string& line) {
    require(line.find('\n') == std::string::npos, "it prints line by line");
  });

  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  for (std::string line; std::getline(input, line);) {
    // These wait for what no agent is here to do.
    if (line.find("wait") != std::string::npos || line.find("expect") != std::string::npos)
      continue;
    const std::string before = in_words(reader);
    const std::string error = interpreter.run(line);
    require(error.find('\n') == std::string::npos, "an error is one line");
    require(error.empty() || in_words(reader) == before, "a wrong verb changes nothing");
  }
  reader.change([](device::state& state) { state = device::state(); });
  return 0;
}
