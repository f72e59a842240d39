// Takes one measurement of one server and prints it as lines of a name and a number.
//
//   measure KIND COUNT CPUS DIALECT COMMAND...
//
// CPUS: a list such as 0 or 0,1, for this program and the server. DIALECT: agent, echo or nop.
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <thread>
#include <vector>

#include "child_process.h"
#include "process_figures.h"
#include "stub_reader.h"

namespace {

// Whatever goes wrong ends the program: a benchmark has no use for half a result.
[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "measure: %s\n", what.c_str());
  std::exit(1);
}

// What answers lines: ended, and waited for, on destruction.
class server : public child_process {
 public:
  // `first` is in the pipe before it starts.
  server(const std::vector<std::string>& command, const std::string& first)
      : child_process(command, {{}, false, first}) {}
  ~server() {
    close_input();
    if (!wait().is_success()) fail("the server did not end well");
  }
  server(const server&) = delete;
  server& operator=(const server&) = delete;

  // Reads until the output ends in a line feed, and returns it all.
  std::string receive_lines() const {
    std::string text;
    char buffer[4096];
    do {
      const std::size_t size = receive(buffer, sizeof buffer);
      if (size == 0) fail("the server's output has ended");
      text.append(buffer, size);
    } while (text.back() != '\n');
    return text;
  }

  std::uint64_t switches() const { return voluntary_switches(pid()) + involuntary_switches(pid()); }

  // Nothing sent is left in the pipe, and every thread of it sleeps.
  bool has_read_all() const {
    int unread = 0;
    if (ioctl(input_descriptor(), FIONREAD, &unread) != 0) fail("cannot look into the pipe");
    return unread == 0 && is_asleep(pid());
  }
};

using command_line = std::vector<std::string>;

std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// What a server is asked, and what it has to answer: the n-th time with the number n behind it.
struct dialect {
  std::string question;
  std::string reply;
  bool numbered;
  std::string greeting;  // written unasked by a server that starts

  std::string request(long n) const { return question + ending(n); }
  std::string answer(long n) const { return reply + ending(n); }
  std::string ending(long n) const { return numbered ? std::to_string(n) + "\n" : "\n"; }
};

const std::map<std::string, dialect> dialects = {
    {"agent", {"Global:Ping ", "Ok:  ", true, ""}},
    {"echo", {"Global:Ping ", "Global:Ping ", true, ""}},
    {"nop", {"NOP", "OK", false, "OK GNU Privacy Guard's Smartcard server ready\n"}}};

void print(const char* name, double value) { std::printf("%s %.9g\n", name, value); }

void expect(const std::string& text, const std::string& expected) {
  if (text != expected) fail("expected " + expected + "received " + text);
}

std::uint64_t own_switches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::uint64_t>(usage.ru_nvcsw + usage.ru_nivcsw);
}

// Waits for the answer to the first request, which was in the pipe before the server started.
void await_start(const server& peer, const dialect& talk) {
  std::string text;
  while (text.size() < talk.greeting.size() + talk.answer(0).size()) text += peer.receive_lines();
  expect(text, talk.greeting + talk.answer(0));
}

void measure_start(long count, const dialect& talk, const command_line& command) {
  std::vector<std::int64_t> times;
  for (long i = 0; i < count; ++i) {
    const std::int64_t begin = now();
    const server peer(command, talk.request(0));
    await_start(peer, talk);
    times.push_back(now() - begin);
  }
  std::sort(times.begin(), times.end());
  print("start_us", static_cast<double>(times[times.size() / 2]) / 1e3);
}

void measure_pings(long count, const dialect& talk, const command_line& command) {
  constexpr long warm_up = 1000;
  const server peer(command, talk.request(0));
  await_start(peer, talk);
  std::vector<std::int64_t> times;
  times.reserve(static_cast<std::size_t>(count));
  std::uint64_t switches = 0;
  std::uint64_t client_switches = 0;
  for (long n = -warm_up; n < count; ++n) {
    if (n == 0) {
      switches = peer.switches();
      client_switches = own_switches();
    }
    const std::string request = talk.request(n);
    const std::int64_t begin = now();
    peer.send(request);
    const std::string answer = peer.receive_lines();
    const std::int64_t end = now();
    expect(answer, talk.answer(n));
    if (n >= 0) times.push_back(end - begin);
  }
  client_switches = own_switches() - client_switches;
  switches = peer.switches() - switches;
  std::sort(times.begin(), times.end());
  print("p50_us", static_cast<double>(times[times.size() / 2]) / 1e3);
  print("p99_us", static_cast<double>(times[times.size() * 99 / 100]) / 1e3);
  print("resident_kib", static_cast<double>(resident_kib(peer.pid())));
  print("switches", static_cast<double>(switches) / static_cast<double>(count));
  print("client_switches", static_cast<double>(client_switches) / static_cast<double>(count));
}

// All requests as fast as the server takes them, while every answer is compared.
void measure_flood(long count, const dialect& talk, const command_line& command) {
  std::string requests;
  std::string expected;
  for (long n = 0; n < count; ++n) {
    requests += talk.request(n);
    expected += talk.answer(n);
  }
  const server peer(command, talk.request(0));
  await_start(peer, talk);
  const std::int64_t begin = now();
  std::thread sender([&] { peer.send(requests); });
  std::vector<char> buffer(64 * 1024);
  for (std::size_t checked = 0; checked < expected.size();) {
    const std::size_t size = peer.receive(buffer.data(), buffer.size());
    if (size == 0 || expected.compare(checked, size, buffer.data(), size) != 0)
      fail("a wrong answer");
    checked += size;
  }
  const double seconds = static_cast<double>(now() - begin) / 1e9;
  sender.join();
  print("lines_per_s", static_cast<double>(count) / seconds);
}

// The reader of the stub library, if the environment has one.
stub_reader* reader_in_environment() {
  const char* const path = std::getenv(stub_reader_variable);
  return path ? map_stub_reader(path) : nullptr;
}

stub_reader& attached_reader() {
  stub_reader* const reader = reader_in_environment();
  if (!reader) fail("there is no reader");
  reader->attached = 1;
  return *reader;
}

// Waits for the agent's word that it has a reader, and returns the reader's name.
std::string await_reader(const server& peer) {
  static const std::string before = "Reader: ";
  std::string text;
  while (text.find("'STUB'\n") == std::string::npos) text += peer.receive_lines();
  const std::size_t name = text.find(before) + before.size();
  return text.substr(name, text.find('\n', name) - name);
}

// The memory of commands that pile up while the library is in a call.
void measure_pending(long count, const dialect& talk, const command_line& command) {
  stub_reader& reader = attached_reader();
  reader.beeps_held = 1;
  const server peer(command, "");
  const std::string beep = await_reader(peer) + ":Beep short 1\n";
  peer.send(beep);
  while (!reader.beeping) usleep(1000);
  const std::uint64_t before = resident_kib(peer.pid());
  for (long n = 0; n < count; ++n) {
    const std::string request = talk.request(n);
    peer.send(request);
  }
  while (!peer.has_read_all()) usleep(1000);
  print("pending_bytes",
        static_cast<double>(resident_kib(peer.pid()) - before) * 1024 / static_cast<double>(count));
  reader.beeps_held = 0;
  std::string expected = "Ok:\n";
  for (long n = 0; n < count; ++n) expected += talk.answer(n);
  std::string answers;
  while (answers.size() < expected.size()) answers += peer.receive_lines();
  expect(answers, expected);
}

// Context switches of an agent left alone; with a reader it has a reader to poll.
void measure_idle(long seconds, const dialect& talk, const command_line& command) {
  stub_reader* const reader = reader_in_environment();
  const server peer(command, talk.request(0));
  if (reader) {
    reader->attached = 1;
    await_reader(peer);
  } else {
    await_start(peer, talk);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const std::int64_t polls = reader ? reader->polls.load() : 0;
  const std::uint64_t switches = peer.switches();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto switched = static_cast<double>(peer.switches() - switches);
  if (reader) {
    print("switches_per_poll", switched / static_cast<double>(reader->polls - polls));
  } else {
    print("idle_switches", switched);
  }
}

// From a card at the reader to its line here; and the same from the poll that found it.
void measure_card(long count, const dialect&, const command_line& command) {
  stub_reader& reader = attached_reader();
  const server peer(command, "");
  await_reader(peer);
  std::vector<std::int64_t> whole;
  std::vector<std::int64_t> own;
  for (long i = 0; i < count; ++i) {
    // Spread over the poll interval, as cards come.
    usleep(static_cast<useconds_t>(i * 89'000 % 250'000));
    const std::int64_t held_up = now();
    reader.card = 1;
    expect(peer.receive_lines(), "Card: 1111111\n");
    const std::int64_t end = now();
    whole.push_back(end - held_up);
    own.push_back(end - reader.found_at);
  }
  std::sort(whole.begin(), whole.end());
  std::sort(own.begin(), own.end());
  print("card_ms", static_cast<double>(whole[whole.size() / 2]) / 1e6);
  print("card_own_us", static_cast<double>(own[own.size() / 2]) / 1e3);
}

}  // namespace

int main(int argc, char* argv[]) {
  static const std::map<std::string, void (*)(long, const dialect&, const command_line&)> kinds = {
      {"start", measure_start},     {"pings", measure_pings}, {"flood", measure_flood},
      {"pending", measure_pending}, {"idle", measure_idle},   {"card", measure_card}};
  const auto kind = argc > 5 ? kinds.find(argv[1]) : kinds.end();
  const auto talk = argc > 5 ? dialects.find(argv[4]) : dialects.end();
  if (kind == kinds.end() || talk == dialects.end())
    fail("usage: measure KIND COUNT CPUS DIALECT COMMAND...");
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (const char* at = argv[3]; at; at = std::strchr(at, ',')) {
    if (*at == ',') ++at;
    CPU_SET(static_cast<std::size_t>(std::atoi(at)), &cpus);
  }
  if (sched_setaffinity(0, sizeof cpus, &cpus) != 0) fail("no such CPUs here");
  try {
    kind->second(std::atol(argv[2]), talk->second, {argv + 5, argv + argc});
  } catch (const std::exception& error) {
    fail(error.what());
  }
}
