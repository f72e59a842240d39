// A virtual reader in this process and an agent attached to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent_process.h"
#include "scratch_folder.h"
#include "server.h"

class rig {
 public:
  // Carries out the verbs, sets the fault if it names a call, and then starts the agent.
  explicit rig(const std::vector<std::string>& verbs = {}, const std::string& executable = AGENT,
               agent_process::environment variables = {}, const virtual_reader::fault& fault = {});

  // Carries out one verb of the virtual reader; it must be a right one.
  void run(const std::string& verb);

  // Calls as the record has them, like "BeepNow 2 0 -> 1"; of those that are delayed only ended
  // ones.
  std::vector<std::string> calls() const;
  std::uint64_t call_count(const std::string& name) const;
  // Waits for so many, those included that are delayed. False if they do not come.
  bool wait_for_call(const std::string& name, std::uint64_t count) const;

  // Where the virtual reader listens.
  std::string socket() const { return folder.path + "/socket"; }

  // Starts the agent anew, on the same reader.
  void start_agent();

 private:
  scratch_folder folder;
  std::string executable;
  agent_process::environment variables;

 public:
  virtual_reader::device reader;

 private:
  virtual_reader::server listening{reader, socket()};

 public:
  std::unique_ptr<agent_process> agent;
};
