// Broken surroundings: what becomes of the agent when its host, its pipes or its library are not as
// they should be.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>

#include "rig.h"

namespace {

using lines = std::vector<std::string>;

const agent_process::environment no_reader = {{"VIRTUAL_READER_SOCKET", "/nowhere"}};

struct shell_result {
  std::string output;
  int status;
};

// Runs a shell command in which $A is the agent, without a reader.
shell_result shell(const std::string& command) {
  const std::string whole =
      std::string("A='") + AGENT + "'; export VIRTUAL_READER_SOCKET=/nowhere; " + command;
  FILE* const pipe = popen(whole.c_str(), "r");
  shell_result result;
  for (int c; (c = std::fgetc(pipe)) != EOF;) result.output += static_cast<char>(c);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

TEST(Surroundings, HaveAStatedOutcome) {
  const std::string read_error = "Error: Input line was too long to process\n";
  const struct {
    std::string what, command, output;
    int status;
  } rows[] = {
      {"standard input closed", "\"$A\" <&-", read_error, 0},
      {"standard input a folder", "\"$A\" </", read_error, 0},
      {"standard input empty", "\"$A\" </dev/null", "", 0},
      {"standard output closed", "echo Global:Ping | \"$A\" >&-", "", 0},
      {"both closed", "\"$A\" <&- >&-", "", 0},
      {"standard output full", "yes Global:Ping | head -n 9999 | \"$A\" >/dev/full", "", 0},
#ifdef __linux__
      {"standard output's place, when it is closed",
       "F=$(mktemp -u); mkfifo $F; \"$A\" <>$F >&- & "
       "until readlink /proc/$!/fd/1 | grep null; do :; done; kill $!; rm $F",
       "/dev/null\n", 0},
#endif
      {"arguments and variables", "echo Global:Ping | POLL_MS=x \"$A\" --help -- x", "Ok:\n", 0},
  };
  for (const auto& row : rows) {
    const shell_result result = shell(row.command);
    EXPECT_EQ(result.output, row.output) << row.what;
    EXPECT_EQ(result.status, row.status) << row.what;
  }
}

TEST(Surroundings, MayStopListening) {
  agent_process agent(AGENT, no_reader);
  EXPECT_EQ(agent.ask("Global:Ping"), "Ok:");
  agent.close_output();
  agent.send_line("Global:Ping");
  EXPECT_EQ(agent.wait(), 128 + SIGPIPE);
}

TEST(Surroundings, MayBeATerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const std::string name = ptsname(terminal);
  std::thread typist([&] {
    const std::string typed = "Global:Ping typed\n\x04";
    EXPECT_EQ(write(terminal, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
  });
  const shell_result result = shell("\"$A\" <" + name);
  typist.join();
  close(terminal);
  EXPECT_EQ(result.output, "Ok:  typed\n");
  EXPECT_EQ(result.status, 0);
}

TEST(Surroundings, MayLeavePipesInNonBlockingMode) {
  agent_process agent(AGENT, no_reader, true);
  EXPECT_EQ(agent.next_line(std::chrono::milliseconds(100)), "(timeout)") << "it waits for input";
  agent.send("Global:Pi");
  EXPECT_EQ(agent.next_line(std::chrono::milliseconds(100)), "(timeout)");
  std::thread host([&] {
    agent.send("ng 0\n");
    for (int i = 1; i < 50000; ++i) agent.send_line("Global:Ping " + std::to_string(i));
    agent.close_input();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a host behind: the pipe fills
  for (int i = 0; i < 50000; ++i) ASSERT_EQ(agent.next_line(), "Ok:  " + std::to_string(i));
  host.join();
  EXPECT_EQ(agent.finish(), 0);
}

TEST(Surroundings, MayInterruptOrKillWithSignals) {
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGPIPE}) {
    agent_process agent(AGENT, no_reader);
    EXPECT_EQ(agent.ask("Global:Ping"), "Ok:");
    for (int i = 0; i < 20; ++i) {
      kill(agent.pid(), SIGSTOP);
      kill(agent.pid(), SIGCONT);
      EXPECT_EQ(agent.ask("Global:Ping " + std::to_string(i)), "Ok:  " + std::to_string(i));
    }
    kill(agent.pid(), signal_number);
    EXPECT_EQ(agent.wait(), 128 + signal_number) << "a signal has its default action";
  }
}

TEST(Surroundings, MayLackRoomForAThread) {
#if !defined(__linux__) || defined(SANITIZED)
  GTEST_SKIP() << "needs Linux's limits on a plain build";
#endif
  // A stack that no address space holds.
  const shell_result result =
      shell("{ ulimit -s 100000000000 && \"$A\" </dev/null; echo status $?; } 2>&1");
  EXPECT_NE(result.output.find("thread constructor failed"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("status 134\n"), std::string::npos) << result.output;
}

TEST(Surroundings, MayLackTheLibraryOrOneOfItsFunctions) {
#ifdef SANITIZED
  GTEST_SKIP() << "needs a plain build";
#endif
  const scratch_folder folder;
  const std::string contents = folder.path + "/Contents/";
  const std::string copy = "mkdir -p " + contents + "MacOS " + contents +
                           "Frameworks && cp \"$A\" " + contents + "MacOS/agent && ";
  const std::string start = contents + "MacOS/agent </dev/null 2>&1";
  shell_result result = shell(copy + start);
  EXPECT_NE(result.output.find(LIBRARY_NAME), std::string::npos) << result.output;
  EXPECT_NE(result.status, 0);

  result = shell(copy + "echo 'int BeepNow;' | cc -shared -fPIC -x c -o " + contents +
                 "Frameworks/" + LIBRARY_NAME + " - && " + start);
  EXPECT_NE(result.output.find("undefined symbol"), std::string::npos) << result.output;
  EXPECT_NE(result.status, 0);
}

}  // namespace
