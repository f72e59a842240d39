// A broken environment: what the agent does when the application, its pipes or the library are not
// as they should be.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <thread>

#include "process_figures.h"
#include "rig.h"

namespace {

using lines = std::vector<std::string>;

const agent_process::environment no_reader = {{"VIRTUAL_READER_SOCKET", "/nowhere"}};

struct shell_result {
  std::string output;
  int status;
};

// Runs a shell command in which $A is the agent, without a reader, and $P the same with a library
// that prints.
shell_result shell(const std::string& command) {
  const std::string whole = std::string("A='") + AGENT + "'; P='" + PRINTING_AGENT +
                            "'; export VIRTUAL_READER_SOCKET=/nowhere; " + command;
  FILE* const pipe = popen(whole.c_str(), "r");
  shell_result result;
  for (int c; (c = std::fgetc(pipe)) != EOF;) result.output += static_cast<char>(c);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

TEST(Environment, ClosedOrUnusualStreamsHaveStatedOutcomes) {
  const std::string read_error = "Error: Input line was too long to process\n";
  const struct {
    std::string what, command, output;
    int status;
  } rows[] = {
      {"standard input closed", "\"$A\" <&-", "", 0},
      {"standard input a folder", "\"$A\" </", read_error, 0},
      {"standard input empty", "\"$A\" </dev/null", "", 0},
      {"standard output closed", "echo Global:Ping | \"$A\" >&-", "", 0},
      {"both closed", "\"$A\" <&- >&-", "", 0},
      {"a library that prints", "echo Global:Ping | \"$P\" 2>/dev/null", "Ok:\n", 0},
      {"the same, standard error closed", "echo Global:Ping | \"$P\" 2>&-", "Ok:\n", 0},
      {"the same, both closed", "echo Global:Ping | \"$P\" >&- 2>&-", "", 0},
      {"where it prints", "\"$P\" 2>&1 </dev/null >/dev/null | sort -u", "bare\nprintf\nstream\n",
       0},
#ifdef __linux__
      {"standard output full", "yes Global:Ping | head -n 9999 | \"$A\" >/dev/full", "", 0},
      {"the places of outputs that are closed",
       "F=$(mktemp -u); mkfifo \"$F\"; \"$A\" <>\"$F\" >&- 2>&- & for i in $(seq 1000); do "
       "P=$(readlink /proc/$!/fd/1 /proc/$!/fd/2); [ \"$P\" = \"$(printf "
       "'/dev/null\\n/dev/null')\" ] && break; done; "
       "echo \"$P\"; kill $!; rm \"$F\"",
       "/dev/null\n/dev/null\n", 0},
#endif
      {"arguments and variables", "echo Global:Ping | POLL_MS=x \"$A\" --help -- x", "Ok:\n", 0},
  };
  for (const auto& row : rows) {
    const shell_result result = shell(row.command);
    EXPECT_EQ(result.output, row.output) << row.what;
    EXPECT_EQ(result.status, row.status) << row.what;
  }
}

TEST(Environment, ClosedOutputPipeEndsTheAgent) {
  agent_process agent(AGENT, no_reader);
  EXPECT_EQ(agent.ask("Global:Ping"), "Ok:");
  agent.close_output();
  agent.send_line("Global:Ping");
  EXPECT_EQ(agent.wait(), 128 + SIGPIPE);
}

// A failure to write is for good: who comes to listen afterwards finds no half of a session.
TEST(Environment, NewListenerAfterAFailedWriteGetsNothing) {
#ifndef __linux__
  GTEST_SKIP() << "needs Linux's word that the agent sleeps";
#endif
  const scratch_folder folder;
  const std::string fifo = folder.path + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int listener = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  child_process agent({"sh", "-c", "trap '' PIPE; exec \"$0\" >\"$1\"", AGENT, fifo},
                      {no_reader, false, {}});
  char block[64];
  const auto read_some = [&] {
    ssize_t size;
    while ((size = read(listener, block, sizeof block)) <= 0) std::this_thread::yield();
    return std::string(block, static_cast<std::size_t>(size));
  };
  agent.send("Global:Ping 1\n");
  EXPECT_EQ(read_some(), "Ok:  1\n");
  close(listener);
  agent.send("Global:Ping 2\n");
  int unread = 1;
  for (int times_asleep = 0; times_asleep < 20 || unread > 0;) {
    times_asleep = is_asleep(agent.pid()) ? times_asleep + 1 : 0;
    ASSERT_EQ(ioctl(agent.input_descriptor(), FIONREAD, &unread), 0);
  }
  listener = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  agent.send("Global:Ping 3\n");
  agent.close_input();
  EXPECT_TRUE(agent.wait().is_success());
  EXPECT_EQ(read(listener, block, sizeof block), 0);
  close(listener);
}

// One in non-blocking mode at that, whose buffers are full most of the time, and on a system whose
// `poll` takes no terminals.
TEST(Environment, TerminalWorksLikeAPipe) {
  std::string preload;
#if defined(__linux__) && !defined(SANITIZED)
  preload = "LD_PRELOAD='" REFUSING_POLL "' ";
#endif
  const int screen = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(screen >= 0 && grantpt(screen) == 0 && unlockpt(screen) == 0);
  const int terminal = open(ptsname(screen), O_RDWR | O_NOCTTY | O_NONBLOCK);
  termios modes{};
  ASSERT_EQ(tcgetattr(terminal, &modes), 0);
  modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  ASSERT_EQ(tcsetattr(terminal, TCSANOW, &modes), 0);
  const std::string streams = std::to_string(terminal);
  shell_result result;
  rusage before{}, after{};
  getrusage(RUSAGE_CHILDREN, &before);
  std::thread agent([&] { result = shell(preload + "\"$A\" <&" + streams + " >&" + streams); });

  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nothing to read
  constexpr int count = 3000;
  std::string expected;
  std::thread typist([&] {
    for (int i = 0; i <= count; ++i) {
      const std::string typed = i < count ? "Global:Ping " + std::to_string(i) + "\n" : "\x04";
      EXPECT_EQ(write(screen, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    }
  });
  for (int i = 0; i < count; ++i) expected += "Ok:  " + std::to_string(i) + "\n";
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // no room to write
  std::string shown;
  char block[1024];
  for (ssize_t size;
       shown.size() < expected.size() && (size = read(screen, block, sizeof block)) > 0;) {
    shown.append(block, static_cast<std::size_t>(size));
  }
  typist.join();
  agent.join();
  getrusage(RUSAGE_CHILDREN, &after);
  close(terminal);
  close(screen);
  EXPECT_EQ(shown, expected);
  EXPECT_EQ(result.status, 0);
#ifndef SANITIZED
  const auto seconds = [](const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  };
  EXPECT_LT(seconds(after) - seconds(before), 0.1) << "it does not wait, it asks again and again";
#endif
}

TEST(Environment, NonBlockingPipesLoseNoLine) {
  agent_process agent(AGENT, no_reader, true);
  EXPECT_EQ(agent.next_line(std::chrono::milliseconds(100)), "(timeout)") << "it waits for input";
  agent.send("Global:Pi");
  EXPECT_EQ(agent.next_line(std::chrono::milliseconds(100)), "(timeout)");
  std::thread application([&] {
    agent.send("ng 0\n");
    for (int i = 1; i < 50000; ++i) agent.send_line("Global:Ping " + std::to_string(i));
    agent.close_input();
  });
  std::this_thread::sleep_for(
      std::chrono::milliseconds(300));  // an application that is behind: the pipe fills
  for (int i = 0; i < 50000; ++i) ASSERT_EQ(agent.next_line(), "Ok:  " + std::to_string(i));
  application.join();
  EXPECT_EQ(agent.finish(), 0);
}

TEST(Environment, SignalsHaveTheirDefaultActions) {
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

TEST(Environment, FailedThreadStartAbortsWithAMessage) {
#if !defined(__linux__) || defined(SANITIZED)
  GTEST_SKIP() << "needs Linux's limits on a plain build";
#endif
  // A stack that no address space holds.
  const shell_result result =
      shell("{ ulimit -s 100000000000 && \"$A\" </dev/null; echo status $?; } 2>&1");
  EXPECT_NE(result.output.find("thread constructor failed"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("status 134\n"), std::string::npos) << result.output;
}

TEST(Environment, MissingLibraryOrFunctionIsNamedAtTheStart) {
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

  // Found out at the start, also of a function that is never called.
  result = shell("\"" LACKING_AGENT "\" </dev/null 2>&1");
  EXPECT_NE(result.output.find("GetDevName"), std::string::npos) << result.output;
  EXPECT_NE(result.status, 0);
}

}  // namespace
