// The virtual reader as a program: starting it plugs the reader in, ending it unplugs it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "execute.h"
#include "run.h"
#include "scenario.h"
#include "suite.h"

namespace {

// So that no pipe takes the place of a stream that this process was not given.
void fill_standard_streams() {
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO) opened = open("/dev/null", O_RDWR);
  if (opened >= 0) close(opened);
}

int print(const std::string& text) {
  if (!(std::cout << text << std::flush)) {
    throw std::runtime_error("cannot write to standard output: " +
                             std::generic_category().message(errno));
  }
  return 0;
}

std::string scenario_of(const std::string& path) {
  std::string text;
  for (const std::string& line : virtual_reader::to_scenario(virtual_reader::read_events(path))) {
    text += line + "\n";
  }
  return text;
}

}  // namespace

int main(int count, char** arguments) try {
  using namespace virtual_reader;
  fill_standard_streams();
  const options options = parse_options(count, arguments);
  if (options.wants_help) return print(usage);
  if (options.wants_version) return print("virtual-reader " VERSION "\n");
  if (!options.to_scenario.empty()) return print(scenario_of(options.to_scenario));
  if (!options.execute) return run_suite(options);
  const bool is_input = *options.execute == "-";
  const std::string verbs =
      is_input ? std::string(std::istreambuf_iterator<char>(std::cin), {}) : *options.execute;
  return execute(choose_socket_path(options, false), verbs, options.timeout);
} catch (const std::exception& error) {
  std::cerr << "virtual-reader: " << error.what() << std::endl;
  return 2;
}
