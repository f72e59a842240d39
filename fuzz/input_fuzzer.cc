// Standard input of any bytes: how it is cut into lines, and what work item each line becomes.
//
// The lines are compared with those that the language's own stream cuts, the work items with what
// holds for all of them.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <typeinfo>
#include <vector>

#include "feedback.h"
#include "fuzzing.h"
#include "line_reader.h"
#include "parse_line.h"

namespace {

const char too_long[] = "(too long)";

std::vector<std::string> lines_by_agent(const std::uint8_t* data, std::size_t size) {
  // A file of no name on standard input, written anew each time.
  static const int file = [] {
    char name[] = "/tmp/input-fuzzer-XXXXXX";
    const int opened = mkstemp(name);
    unlink(name);
    dup2(opened, STDIN_FILENO);
    return opened;
  }();
  require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size) &&
              lseek(file, 0, SEEK_SET) == 0,
          "the file can be written");
  std::vector<std::string> lines;
  line_reader reader;
  while (!reader.at_end()) {
    std::string_view line;
    lines.emplace_back(reader.next(&line) ? line : too_long);
  }
  return lines;
}

std::vector<std::string> lines_by_stream(const std::uint8_t* data, std::size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::vector<std::string> lines;
  char buffer[1024];
  for (;;) {
    in.getline(buffer, sizeof buffer);
    if (in.fail() && !in.eof()) {
      lines.push_back(too_long);
      while (in.fail()) {
        in.clear();
        in.getline(buffer, sizeof buffer);
      }
      continue;
    }
    std::streamsize length = in.gcount();
    if (!in.eof() && length > 0) --length;  // the line feed counts
    lines.emplace_back(buffer, static_cast<std::size_t>(length));
    if (in.eof()) return lines;
  }
}

// Empty lines are dropped anyway; how many stand at the end of input does not matter.
std::vector<std::string> but_empty(std::vector<std::string> lines) {
  lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
  return lines;
}

bool holds(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

void check_item(const std::string& line) {
  const action_ptr item = parse_line(line);
  const action_ptr again = parse_line(line);
  const std::string cut = line.substr(0, line.find('\0'));
  const bool blank = cut.find_first_not_of(" \t\n\v\f\r") == std::string::npos;
  require(blank == !item && blank == !again, "only blank lines come to nothing");
  if (blank) return;
  require(!item->silent, "every line is answered");
  require(
      holds(item->reader == global_reader ? cut + std::string(global_reader) : cut, item->reader),
      "the target stands in the line");
  const action& one = *item;
  const action& other = *again;
  require(typeid(one) == typeid(other) && one.reader == other.reader, "a second run is alike");
  if (const auto* const error = dynamic_cast<print_error*>(item.get())) {
    require(error->text == dynamic_cast<print_error&>(*again).text, "so is its message");
    require(error->reader == global_reader && !error->text.empty(), "an error is for anybody");
    const std::size_t open = error->text.find('\'');
    if (open != std::string::npos) {
      const std::string quoted = error->text.substr(open + 1);
      // The word quoted first, up to where the message goes on.
      const std::size_t middle = quoted.find("' for reader '");
      const std::size_t close = middle != std::string::npos ? middle : quoted.rfind('\'');
      require(close != std::string::npos, "a quotation ends");
      require(holds(cut, quoted.substr(0, close)), "it quotes the line");
    }
  }
  if (const auto* const b = dynamic_cast<beep*>(item.get())) {
    require(b->count >= 1 && b->count <= (b->long_beep ? 2 : 5), "beeps are few");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::string> lines = but_empty(lines_by_agent(data, size));
  require(lines == but_empty(lines_by_stream(data, size)), "lines are cut as streams cut them");
  for (const std::string& line : lines) check_item(line);
  return 0;
}
