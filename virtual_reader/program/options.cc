#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <cstring>
#include <iostream>

namespace virtual_reader {

const char usage[] =
    "usage: virtual-reader [OPTION...] [FILE] [-- COMMAND ARG...]\n"
    "       virtual-reader [--socket PATH] [--limit SECONDS] --tell 'VERB...'\n"
    "       virtual-reader --to-verbs RECORDING\n"
    "Plugs a virtual reader in and carries out verbs from FILE or standard input; `help` is one "
    "of\n"
    "them. Pulls the reader out at the end of its input. With COMMAND it runs the host under test\n"
    "beside it and says how that went.\n"
    "  --socket PATH    where agents find the reader\n"
    "  --unplugged      the reader is not plugged in yet\n"
    "  --stay           goes on after the end of the input, to a signal or COMMAND's end\n"
    "  --keep-going     goes on with FILE after an expectation that failed\n"
    "  --limit SECONDS  for the whole\n"
    "  --screen         shows the reader on a page in the browser\n"
    "  --replay FILE    answers as the library did of which FILE is a recording\n"
    "  --speed N        N times as fast as it did\n"
    "  --to-verbs FILE  prints a recording as verbs\n"
    "  --tell VERB      has a reader that runs carry the verb out\n"
    "  --version, --help\n"
    "Status 0: all held; 1: an expectation failed; 2: wrong usage or a wrong line in FILE;\n"
    "3: the host failed; 4: the limit ran out, or it was interrupted.\n";

std::optional<options> parse_options(int count, char** arguments) {
  options chosen;
  const option known[] = {{"help", no_argument, &chosen.help, 1},
                          {"keep-going", no_argument, &chosen.keep_going, 1},
                          {"limit", required_argument, nullptr, 'l'},
                          {"screen", no_argument, &chosen.screen, 1},
                          {"replay", required_argument, nullptr, 'r'},
                          {"socket", required_argument, nullptr, 's'},
                          {"speed", required_argument, nullptr, 'f'},
                          {"stay", no_argument, &chosen.stay, 1},
                          {"tell", required_argument, nullptr, 't'},
                          {"to-verbs", required_argument, nullptr, 'v'},
                          {"unplugged", no_argument, &chosen.unplugged, 1},
                          {"version", no_argument, &chosen.version, 1},
                          {}};
  char** const end = arguments + count;
  char** const dashes =
      std::find_if(arguments, end, [](const char* text) { return std::strcmp(text, "--") == 0; });
  if (dashes != end) chosen.command = {dashes + 1, end};
  const auto fail = [](const std::string& why) {
    std::cerr << "virtual-reader: " << why << '\n' << usage;
    return std::nullopt;
  };
  const int own_count = static_cast<int>(dashes - arguments);
  for (int found = 0; found != -1;) {
    found = getopt_long(own_count, arguments, "", known, nullptr);
    if (found > 0 && found != '?' && found != 't' && !*optarg) return fail("an empty argument");
    if (found == 's') chosen.socket = optarg;
    if (found == 't') chosen.tell = optarg;
    if (found == 'l') {
      char* rest = nullptr;
      const double seconds = std::strtod(optarg, &rest);
      if (*rest || !(seconds >= 0.001 && seconds <= 1e6)) return fail("--limit takes seconds");
      chosen.limit = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    }
    if (found == 'r') chosen.replay = optarg;
    if (found == 'v') chosen.to_verbs = optarg;
    if (found == 'f') {
      char* rest = nullptr;
      chosen.speed = std::strtod(optarg, &rest);
      if (*rest || !(chosen.speed >= 0.01 && chosen.speed <= 1000)) {
        return fail("--speed takes a number from 0.01 to 1000");
      }
    }
    if (found == '?') return fail("wrong usage");
  }
  if (optind < own_count && !*arguments[optind]) return fail("FILE has no name");
  if (optind < own_count) chosen.file = arguments[optind++];
  if (optind < own_count) return fail("one FILE at a time");
  if (dashes != end && chosen.command.empty()) return fail("the COMMAND behind `--` is missing");
  const bool tells_alone = chosen.file.empty() && chosen.command.empty() && !chosen.unplugged &&
                           !chosen.stay && !chosen.screen && !chosen.keep_going;
  if (chosen.tell && !tells_alone) return fail("--tell goes with --socket and --limit alone");
  return chosen;
}

}  // namespace virtual_reader
