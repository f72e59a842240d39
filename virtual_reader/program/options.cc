#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <cstring>
#include <iostream>

namespace virtual_reader {

const char usage[] =
    "usage: virtual-reader [OPTION...] [FILE] [-- COMMAND ARG...]\n"
    "       virtual-reader [--socket PATH] [--timeout SECONDS] --execute 'VERB...'\n"
    "       virtual-reader --to-scenario RECORDING\n"
    "Plugs a virtual reader in and carries out verbs from FILE or standard input; `help` is one "
    "of\n"
    "them. Pulls the reader out at the end of its input. With COMMAND it runs the host under test\n"
    "beside it and says how that went.\n"
    "  --socket PATH    where agents find the reader\n"
    "  --unplugged      the reader is not plugged in yet\n"
    "  --stay           goes on after the end of the input, to a signal or COMMAND's end\n"
    "  --keep-going     goes on with FILE after an expectation that failed\n"
    "  --timeout SECONDS  for the whole\n"
    "  --ui         shows the reader on a page in the browser\n"
    "  --replay FILE    answers as the library did of which FILE is a recording\n"
    "  --speed N        N times as fast as it did\n"
    "  --to-scenario FILE  prints a recording as verbs\n"
    "  --execute VERB      has a reader that runs carry the verb out; `-` reads verbs from "
    "standard input\n"
    "  --version, --help\n"
    "Status 0: all held; 1: an expectation failed; 2: wrong usage or a wrong line in FILE;\n"
    "3: the host failed; 4: the limit ran out, or it was interrupted.\n";

std::optional<options> parse_options(int count, char** arguments) {
  options chosen;
  const option known[] = {{"help", no_argument, &chosen.help, 1},
                          {"keep-going", no_argument, &chosen.keep_going, 1},
                          {"timeout", required_argument, nullptr, 'l'},
                          {"ui", no_argument, &chosen.ui, 1},
                          {"replay", required_argument, nullptr, 'r'},
                          {"socket", required_argument, nullptr, 's'},
                          {"speed", required_argument, nullptr, 'f'},
                          {"stay", no_argument, &chosen.stay, 1},
                          {"execute", required_argument, nullptr, 'e'},
                          {"to-scenario", required_argument, nullptr, 'v'},
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
    found = getopt_long(own_count, arguments, "e:", known, nullptr);
    if (found > 0 && found != '?' && found != 'e' && !*optarg) return fail("an empty argument");
    if (found == 's') chosen.socket = optarg;
    if (found == 'e') chosen.execute = optarg;
    if (found == 'l') {
      char* rest = nullptr;
      const double seconds = std::strtod(optarg, &rest);
      if (*rest || !(seconds >= 0.001 && seconds <= 1e6)) return fail("--timeout takes seconds");
      chosen.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
    }
    if (found == 'r') chosen.replay = optarg;
    if (found == 'v') chosen.to_scenario = optarg;
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
  const bool executes_alone = chosen.file.empty() && chosen.command.empty() && !chosen.unplugged &&
                              !chosen.stay && !chosen.ui && !chosen.keep_going;
  if (chosen.execute && !executes_alone)
    return fail("--execute goes with --socket and --timeout alone");
  return chosen;
}

}  // namespace virtual_reader
