// The virtual reader as a program: starting it plugs the reader in, ending it pulls it out.
#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <unistd.h>

#include <iostream>
#include <iterator>

#include "execute.h"
#include "outcome.h"
#include "run.h"
#include "scenario.h"

namespace {

// So that no pipe takes the place of a stream that this process was not given.
void fill_standard_streams() {
  int opened = 0;
  while (opened >= 0 && opened <= STDERR_FILENO) opened = open("/dev/null", O_RDWR);
  if (opened >= 0) close(opened);
}

}  // namespace

int main(int count, char** arguments) try {
  using namespace virtual_reader;
  fill_standard_streams();
#ifdef __GLIBC__
  mallopt(M_MMAP_THRESHOLD, 1 << 17);  // large texts go back at once
#endif
  const auto chosen = parse_options(count, arguments);
  if (!chosen) return wrong_usage;
  if (chosen->help) std::cout << usage;
  if (chosen->version) std::cout << "virtual-reader " VERSION "\n";
  if (!chosen->to_scenario.empty()) {
    for (const std::string& line : to_scenario(read_recording(chosen->to_scenario))) {
      std::cout << line << '\n';
    }
    return passed;
  }
  if (chosen->help || chosen->version) return passed;
  if (!chosen->execute) return run(*chosen);
  const bool is_input = *chosen->execute == "-";
  const std::string verbs =
      is_input ? std::string(std::istreambuf_iterator<char>(std::cin), {}) : *chosen->execute;
  return execute(chosen_socket_path(*chosen, false), verbs, chosen->timeout);
} catch (const std::exception& error) {
  std::cerr << "virtual-reader: " << error.what() << std::endl;
  return virtual_reader::wrong_usage;
}
