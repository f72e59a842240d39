#include "rig.h"

#include <stdexcept>

#include "session.h"

rig::rig(const std::vector<std::string>& verbs, const std::string& agent_executable,
         agent_process::environment agent_variables, const virtual_reader::fault& fault)
    : executable(agent_executable), variables(std::move(agent_variables)) {
  for (const std::string& verb : verbs) run(verb);
  if (!fault.call.empty()) reader.modify([&](auto& r) { r.faults.add(fault); });
  variables["VIRTUAL_READER_SOCKET"] = socket();
  start_agent();
}

void rig::start_agent() {
  agent.reset();
  agent = std::make_unique<agent_process>(executable, variables);
}

void rig::run(const std::string& verb) {
  virtual_reader::expectations expected(reader);
  virtual_reader::session_callbacks around;
  around.answer = [](const std::string&) {};
  const virtual_reader::session told(reader, expected, around);
  try {
    told.execute(verb);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(verb + ": " + error.what());
  }
}

std::vector<std::string> rig::calls() const {
  const std::string head = "call ";
  std::vector<std::string> all;
  for (std::uint64_t next = 1; next < reader.log.end();) {
    for (const auto& entry : reader.log.read(next)) {
      next = entry.end();
      if (entry.text.rfind(head, 0) != 0) continue;
      all.insert(all.end(), entry.count, entry.text.substr(head.size()));
    }
  }
  return all;
}

std::uint64_t rig::call_count(const std::string& name) const {
  std::uint64_t count = 0;
  for (const std::string& call : calls()) count += call.substr(0, call.find(' ')) == name ? 1 : 0;
  return count;
}

bool rig::wait_for_call(const std::string& name, std::uint64_t count) const {
  const auto until = std::chrono::steady_clock::now() + patience;
  const auto is_waiting = [&](const auto& r) {
    std::uint64_t waiting = 0;
    for (const auto& call : r.waiting) waiting += call.name == name ? 1 : 0;
    return waiting;
  };
  for (;;) {
    const std::uint64_t next = reader.log.end();
    if (call_count(name) + reader.read(is_waiting) >= count) return true;
    if (!reader.log.wait(next, until, nullptr)) return false;
  }
}
