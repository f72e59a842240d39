// Tries a reader library against what the agent expects of it.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

#include "caller.h"
#include "expectations.h"
#include "report.h"

namespace {

using namespace bringup;

const char usage[] =
    "usage: library-check [OPTIONS] LIBRARY\n"
    "Tries a reader library against what the agent expects of it, and asks you to hold cards up,\n"
    "and to pull the reader out and plug it in. Each such step can be left out.\n"
    "  --no-person        asks for nothing\n"
    "  --report FILE      writes a report for machines, to attach to a message\n"
    "  --write FILE       also writes to the reader and resets it. Its configuration is saved in "
    "FILE\n"
    "                     first, which must not exist, and put back at the end or after Ctrl-C\n"
    "  --put-back FILE    does nothing but put that configuration back\n"
    "  --timeout SECONDS    for a call, and for what you are asked to do; 10 if missing\n"
    "Status 0: all that was tried holds; 1: not; 2: wrong options, or no library.\n";

struct options : session::options {
  std::string report, put_back;
  int no_person = 0, help = 0;
};

// False if they are wrong.
bool parse(int count, char** arguments, options* chosen) {
  const option known[] = {{"help", no_argument, &chosen->help, 1},
                          {"no-person", no_argument, &chosen->no_person, 1},
                          {"timeout", required_argument, nullptr, 'l'},
                          {"put-back", required_argument, nullptr, 'p'},
                          {"report", required_argument, nullptr, 'r'},
                          {"write", required_argument, nullptr, 'w'},
                          {}};
  for (int found = 0; found != -1;) {
    found = getopt_long(count, arguments, "", known, nullptr);
    if (found == '?') return false;
    if (found == 'r') chosen->report = optarg;
    if (found == 'w') chosen->saved_configuration = optarg;
    if (found == 'p') chosen->put_back = optarg;
    if (found == 'l') {
      char* end = nullptr;
      const long seconds = std::strtol(optarg, &end, 10);
      if (*end || seconds < 1 || seconds > 3600) return false;
      chosen->limit = std::chrono::seconds(seconds);
    }
  }
  if (optind < count) chosen->library = arguments[optind++];
  chosen->person = !chosen->no_person;
  chosen->program = arguments[0];
  return chosen->help || (optind >= count && !chosen->library.empty());
}

// A mistake in a file's name must not show after an afternoon's work.
void check_files(const options& chosen) {
  if (!std::ifstream(chosen.library)) {
    throw std::system_error(errno, std::generic_category(), chosen.library);
  }
  if (!chosen.report.empty() && !std::ofstream(chosen.report, std::ios::app)) {
    throw std::system_error(errno, std::generic_category(), chosen.report);
  }
  const std::string& saved = chosen.saved_configuration;
  if (!saved.empty() && access(saved.c_str(), F_OK) == 0) {
    throw std::runtime_error(saved + " exists: a configuration may be saved in it");
  }
}

void print(const finding& found) {
  std::printf("%-19s %s\n", found.outcome.c_str(), found.name.c_str());
  if (!found.detail.empty()) std::printf("%-19s   %s\n", "", found.detail.c_str());
  std::fflush(stdout);
}

finding look_at(const expectation& row, session* s) {
  try {
    if (row.needs_reader) s->need_reader();
    return {row.name, "holds", row.attempt(*s)};
  } catch (const does_not_hold& why) {
    return {row.name, "does not hold", why.what()};
  } catch (const could_not_be_tried& why) {
    return {row.name, "could not be tried", why.what()};
  }
}

void print_times(const session& s) {
  std::printf("\n%-32s %6s %12s %12s %12s\n", "milliseconds", "calls", "least", "median", "most");
  for (const auto& [call, times] : s.times) {
    const timing time = timing_of(times);
    std::printf("%-32s %6zu %12.3f %12.3f %12.3f\n", call.c_str(), times.size(), time.least,
                time.median, time.most);
  }
}

int check(const options& chosen) {
  check_files(chosen);
  session s(chosen);
  std::vector<finding> findings;
  bool was_interrupted = false;
  for (const expectation& row : expectations) {
    try {
      if (was_interrupted) {
        findings.push_back({row.name, "could not be tried", "interrupted"});
        continue;
      }
      findings.push_back(look_at(row, &s));
      print(findings.back());
    } catch (const interrupted&) {
      was_interrupted = true;
      findings.push_back({row.name, "could not be tried", "interrupted"});
      std::printf("\ninterrupted\n");
    }
  }
  s.hold_out();
  int status = was_interrupted;
  if (s.configuration_changed) {
    try {
      put_back(s, s.saved);
      std::printf("the configuration is put back\n");
    } catch (const std::exception& why) {
      status = 1;
      std::printf(
          "the configuration could not be put back: %s\nOnce a reader is there: %s --put-back '%s' "
          "'%s'\n",
          why.what(), chosen.program.c_str(), chosen.saved_configuration.c_str(),
          chosen.library.c_str());
    }
  }
  print_times(s);
  int count[3] = {};
  for (const finding& each : findings)
    ++count[each.outcome == "holds" ? 0 : each.outcome == "does not hold" ? 1 : 2];
  std::printf("\n%d hold, %d do not hold, %d could not be tried\n", count[0], count[1], count[2]);
  if (!chosen.report.empty()) write_report(chosen.report, s, findings);
  return count[1] != 0 ? 1 : status;
}

}  // namespace

int main(int count, char** arguments) try {
  if (count == 3 && std::strcmp(arguments[1], "--make-calls") == 0) {
    // Out of the library's reach, which may use standard input.
    const int control = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    close(nothing);
    return make_calls(arguments[2], control);
  }
  // So that no pipe takes the place of a closed stream.
  for (int place = 0; place <= 2;) {
    place = open("/dev/null", O_RDWR);
    if (place > 2) close(place);
  }
  options chosen;
  const bool right = parse(count, arguments, &chosen);
  if (!right || chosen.help) {
    std::fputs(usage, right ? stdout : stderr);
    return right ? 0 : 2;
  }
  if (chosen.put_back.empty()) return check(chosen);
  const std::vector<record> all = saved_configuration(chosen.put_back);
  session s(chosen);
  s.hold_out();
  put_back(s, all);
  std::printf("the configuration is put back\n");
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "library-check: %s\n", error.what());
  return 2;
}
