// A virtual reader in this process and an agent attached to it: what most tests stand on.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent_process.h"
#include "device.h"
#include "verbs.h"

// A folder of this test's own, removed at its end.
class scratch_folder {
 public:
  scratch_folder();
  ~scratch_folder();
  scratch_folder(const scratch_folder&) = delete;
  scratch_folder& operator=(const scratch_folder&) = delete;
  const std::string path;
};

class bench {
 public:
  // Carries out the verbs, sets the fault if it names a call, and then starts the agent.
  explicit bench(const std::vector<std::string>& verbs = {}, const std::string& executable = AGENT,
                 agent_process::environment variables = {}, const virtual_reader::rule& fault = {});

  // Carries out one verb of the virtual reader; it must be a right one.
  void run(const std::string& verb);

  // Where the virtual reader listens.
  std::string socket() const { return folder.path + "/socket"; }

  // Starts the agent anew, on the same reader.
  void start_agent();

  // Reads until a reader is announced, and returns its name.
  std::string await_reader();

  // The calls since the last time of asking but for the polls (that is, those that scan for cards),
  // in the virtual reader's own notation.
  std::vector<std::string> calls_but_polls();

  // Every call, from the first.
  std::vector<std::string> calls() const { return reader.calls(); }

 private:
  scratch_folder folder;
  std::string executable;
  agent_process::environment variables;
  std::size_t calls_seen = 0;

 public:
  virtual_reader::device reader;
  std::unique_ptr<agent_process> agent;
};
