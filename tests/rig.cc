#include "rig.h"

#include <stdexcept>

#include "verbs.h"

rig::rig(const std::vector<std::string>& verbs, const std::string& agent_executable,
         agent_process::environment agent_variables, const virtual_reader::rule& fault)
    : executable(agent_executable),
      variables(std::move(agent_variables)),
      reader(socket(), nullptr) {
  for (const std::string& verb : verbs) run(verb);
  if (!fault.call.empty()) reader.add_rule(fault);
  variables["VIRTUAL_READER_SOCKET"] = socket();
  start_agent();
}

void rig::start_agent() {
  agent.reset();
  agent = std::make_unique<agent_process>(executable, variables);
}

void rig::run(const std::string& verb) {
  virtual_reader::verbs interpreter(reader, [](const std::string&) {});
  const std::string error = interpreter.run(verb);
  if (!error.empty()) throw std::runtime_error(verb + ": " + error);
}
