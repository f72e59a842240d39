#include "caller.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <type_traits>

#include "reader_library.h"

namespace bringup {

namespace {

int control = -1;
std::mutex sending;
const pthread_t calling_thread = pthread_self();
std::atomic<bool> in_call{false}, removed{false};

void send(answer told, const std::string& text) {
  told.text_size = text.size();
  std::string bytes(reinterpret_cast<const char*>(&told), sizeof told);
  bytes += text;
  const std::lock_guard<std::mutex> lock(sending);
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = write(control, bytes.data() + sent, bytes.size() - sent);
    if (count <= 0) _exit(1);  // nobody listens any more
    sent += static_cast<std::size_t>(count);
  }
}

void hear(char* text, int length) {
  answer told{};
  told.what = answer::kind::said;
  told.other_thread = !pthread_equal(pthread_self(), calling_thread);
  told.during_call = in_call;
  told.after_removal = removed;
  told.result = length;
  send(told, length > 0 && text ? std::string(text, static_cast<std::size_t>(length)) : "");
}

const char* text_returned = nullptr;

template <typename R, typename... A>
std::int64_t result_of(R (*called)(A...), A... given) {
  if constexpr (std::is_void_v<R>) {
    called(given...);
    return 0;
  } else if constexpr (std::is_pointer_v<R>) {
    text_returned = called(given...);
    return 0;
  } else {
    return called(given...);
  }
}

// One for each kind of function, with what it is given.
template <typename R>
std::int64_t make(R (*called)(), const request&, unsigned char*) {
  return result_of(called);
}
template <typename R>
std::int64_t make(R (*called)(std::int16_t), const request& asked, unsigned char*) {
  return result_of(called, asked.first);
}
template <typename T>
std::int64_t make(pc_prox::status (*called)(T, std::int16_t), const request& asked,
                  unsigned char*) {
  return result_of(called, static_cast<T>(asked.first), asked.second);
}
template <typename T>
std::int64_t make(pc_prox::status (*called)(T*), const request&, unsigned char* bytes) {
  return result_of(called, reinterpret_cast<T*>(bytes));
}
std::int64_t make(void (*called)(pc_prox::marker_function), const request& asked, unsigned char*) {
  removed = asked.first == 0;
  return result_of<void, pc_prox::marker_function>(called, asked.first ? hear : nullptr);
}
// GetDevName: the size of its buffer is the maker's secret.
std::int64_t make(void (*)(char*), const request&, unsigned char*) { return 0; }

std::int64_t make(const reader_library& library, const request& asked, unsigned char* bytes) {
  switch (asked.what) {
#define READER_FUNCTION(name) \
  case function::name:        \
    return make(library.name, asked, bytes);
#include "reader_functions.inc"
#undef READER_FUNCTION
    case function::getPartNumberString_read_again:
      break;
  }
  return 0;
}

bool receive(request* asked) {
  char* const bytes = reinterpret_cast<char*>(asked);
  std::size_t size = 0;
  while (size < sizeof *asked) {
    const ssize_t count = read(control, bytes + size, sizeof *asked - size);
    if (count <= 0) return false;
    size += static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

const char* name_of(function what) {
  static const char* const names[] = {
#define READER_FUNCTION(name) #name,
#include "reader_functions.inc"
#undef READER_FUNCTION
      "the text of getPartNumberString, read again"};
  return names[static_cast<std::size_t>(what)];
}

guarded_record between_guards(const record& given, unsigned fill) {
  guarded_record all;
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i] = static_cast<unsigned char>((31 * i + 0xA5) ^ (fill % 2 ? 0xFF : 0));
  }
  std::memcpy(&all[guard_size], given.data(), given.size());
  return all;
}

int make_calls(const char* path, int descriptor) {
  control = descriptor;
  reader_library library;
  const std::string problem = library.load(path);
  answer told{};
  told.what = answer::kind::loaded;
  told.is_null = !problem.empty();
  std::string names;
  for (const std::string& name : library.missing) names += (names.empty() ? "" : ", ") + name;
  std::fflush(nullptr);
  send(told, told.is_null ? problem : names);
  for (request asked; receive(&asked);) {
    told = {};
    told.what = answer::kind::returned;
    told.area = between_guards(asked.given, asked.fill);
    in_call = true;
    const auto begin = std::chrono::steady_clock::now();
    told.result = make(library, asked, &told.area[guard_size]);
    told.nanoseconds = std::chrono::nanoseconds(std::chrono::steady_clock::now() - begin).count();
    in_call = false;
    const bool has_text = asked.what == function::getPartNumberString ||
                          asked.what == function::getPartNumberString_read_again;
    told.is_null = has_text && !text_returned;
    std::fflush(nullptr);  // what the library has printed belongs to this call
    send(told, has_text && text_returned ? text_returned : "");
  }
  return 0;
}

}  // namespace bringup
