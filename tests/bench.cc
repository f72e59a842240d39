#include "bench.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <stdexcept>

namespace {

std::string make_folder() {
  char name[] = "/tmp/card-reader-test-XXXXXX";
  if (!mkdtemp(name)) throw std::runtime_error("cannot make a folder in /tmp");
  return name;
}

}  // namespace

scratch_folder::scratch_folder() : path(make_folder()) {}

scratch_folder::~scratch_folder() {
  const std::string command = "rm -rf " + path;
  if (std::system(command.c_str()) != 0) ADD_FAILURE() << command;
}

bench::bench(const std::vector<std::string>& verbs, const std::string& agent_executable,
             agent_process::environment agent_variables, const virtual_reader::rule& fault)
    : executable(agent_executable),
      variables(std::move(agent_variables)),
      reader(socket(), nullptr) {
  for (const std::string& verb : verbs) run(verb);
  if (!fault.call.empty()) reader.add_rule(fault);
  variables["VIRTUAL_READER_SOCKET"] = socket();
  start_agent();
}

void bench::start_agent() {
  agent.reset();
  agent = std::make_unique<agent_process>(executable, variables);
}

void bench::run(const std::string& verb) {
  virtual_reader::verbs interpreter(reader, [](const std::string&) {});
  const std::string error = interpreter.run(verb);
  if (!error.empty()) throw std::runtime_error(verb + ": " + error);
}

std::string bench::await_reader() {
  const std::string head = "Reader: ";
  return agent->line_beginning(head).substr(head.size());
}

std::vector<std::string> bench::calls_but_polls() {
  const std::vector<std::string> all = reader.calls();
  std::vector<std::string> chosen;
  for (; calls_seen < all.size(); ++calls_seen) {
    if (all[calls_seen].rfind("GetQueuedID", 0) != 0) chosen.push_back(all[calls_seen]);
  }
  return chosen;
}
