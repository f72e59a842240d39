#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

namespace virtual_reader {

const char usage[] =
    "usage: virtual-reader [OPTIONS] [SCRIPT...] [-- COMMAND [ARG...]]\n"
    "       virtual-reader --check SCRIPT...\n"
    "       virtual-reader [--socket PATH] [--timeout SECONDS] --execute 'VERB...'\n"
    "       virtual-reader --to-scenario FILE\n"
    "\n"
    "Simulates a card reader. Runs the verbs in SCRIPT, or on standard input (type `help` for a\n"
    "list), and unplugs the reader at the end of input. With COMMAND, also runs that program\n"
    "against the reader and reports whether the test passed. Each of several SCRIPTs runs with a\n"
    "reader and a COMMAND of its own.\n"
    "\n"
    "  --socket PATH            listen on (or, with --execute, connect to) PATH\n"
    "  --unplugged              start with the reader unplugged\n"
    "  --stay                   keep running after the end of input, until a signal or until\n"
    "                           COMMAND exits\n"
    "  --keep-going             continue after a failed expectation\n"
    "  --timeout SECONDS        fail if a run takes longer\n"
    "  --ui                     open a control page in the browser; SCRIPT starts when it is open\n"
    "  --replay RECORDING       answer calls from a recording of a vendor library\n"
    "  --lenient                with --replay: pass although the calls diverge from RECORDING\n"
    "  --events FILE            write the event log to FILE, one JSON object per line\n"
    "  --junit FILE             write the verdicts to FILE, for CI systems\n"
    "  --check                  check each SCRIPT without running it\n"
    "  --to-scenario FILE       convert a recording to a script and print it\n"
    "  -e, --execute 'VERB...'  run verbs on a virtual reader that is already running; `-` reads\n"
    "                           them from standard input\n"
    "  --version, -h, --help\n"
    "\n"
    "Exit status: 0 passed; 1 an expectation failed (or bad line on stdin); 2 usage error or "
    "syntax\n"
    "error in SCRIPT; 3 COMMAND failed; 4 timed out or interrupted.\n";

namespace {

[[noreturn]] void fail(const std::string& why) { throw std::runtime_error(why + "; try --help"); }

std::chrono::milliseconds parse_seconds(const char* text) {
  char* rest = nullptr;
  const double seconds = std::strtod(text, &rest);
  if (*rest || !(seconds >= 0.001 && seconds <= 1e6)) {
    fail("invalid --timeout '" + std::string(text) + "': expected seconds from 0.001 to 1000000");
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

void check_combination(const options& options) {
  const bool has_script = !options.scripts.empty(), has_command = !options.command.empty();
  const bool is_run = has_script || has_command || options.is_unplugged || options.should_stay ||
                      options.has_ui || options.should_keep_going || !options.replay.empty() ||
                      !options.events.empty() || !options.junit.empty();
  if (options.execute && (is_run || options.should_check)) {
    fail("--execute can be combined only with --socket and --timeout");
  }
  if (!options.to_scenario.empty() && is_run) fail("--to-scenario cannot be combined");
  if (options.should_check && !has_script) fail("--check needs a SCRIPT");
  if (options.scripts.size() > 1 && (options.should_stay || options.has_ui)) {
    fail("--stay and --ui need a single SCRIPT");
  }
  if (!options.junit.empty() && !has_script) fail("--junit needs a SCRIPT");
  if (options.is_lenient && options.replay.empty()) fail("--lenient needs --replay");
}

}  // namespace

options parse_options(int count, char** arguments) {
  options result;
  const option known[] = {{"check", no_argument, &result.should_check, 1},
                          {"events", required_argument, nullptr, 'v'},
                          {"execute", required_argument, nullptr, 'e'},
                          {"help", no_argument, nullptr, 'h'},
                          {"junit", required_argument, nullptr, 'j'},
                          {"keep-going", no_argument, &result.should_keep_going, 1},
                          {"lenient", no_argument, &result.is_lenient, 1},
                          {"replay", required_argument, nullptr, 'r'},
                          {"socket", required_argument, nullptr, 's'},
                          {"stay", no_argument, &result.should_stay, 1},
                          {"timeout", required_argument, nullptr, 't'},
                          {"to-scenario", required_argument, nullptr, 'c'},
                          {"ui", no_argument, &result.has_ui, 1},
                          {"unplugged", no_argument, &result.is_unplugged, 1},
                          {"version", no_argument, &result.wants_version, 1},
                          {}};
  const std::map<int, std::string*> paths = {{'v', &result.events},
                                             {'j', &result.junit},
                                             {'r', &result.replay},
                                             {'s', &result.socket},
                                             {'c', &result.to_scenario}};
  char** const end = arguments + count;
  char** const dashes =
      std::find_if(arguments, end, [](const char* text) { return std::strcmp(text, "--") == 0; });
  if (dashes != end) {
    result.command = {dashes + 1, end};
    if (result.command.empty()) fail("missing COMMAND after `--`");
  }
  const int own_count = static_cast<int>(dashes - arguments);
  opterr = 0;
  for (int found = 0; (found = getopt_long(own_count, arguments, ":e:h", known, nullptr)) != -1;) {
    if (found == '?') fail("unknown option '" + std::string(arguments[optind - 1]) + "'");
    if (found == ':') fail(std::string(arguments[optind - 1]) + " needs an argument");
    if (found == 'h') result.wants_help = 1;
    if (found == 't') result.timeout = parse_seconds(optarg);
    if (found == 'e') {
      result.execute = (result.execute ? *result.execute + "\n" : "") + optarg;
    }
    const auto path = paths.find(found);
    if (path == paths.end()) continue;
    if (!*optarg) fail("empty argument");
    *path->second = optarg;
  }
  result.scripts = {arguments + optind, arguments + own_count};
  for (const std::string& script : result.scripts) {
    if (script.empty()) fail("empty argument");
  }
  check_combination(result);
  return result;
}

}  // namespace virtual_reader
