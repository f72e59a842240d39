#include "terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <system_error>
#include <utility>

#include "tokens.h"
#include "verbs.h"

#ifdef HAVE_HISTEDIT
#include <dlfcn.h>
#include <histedit.h>
#endif

namespace virtual_reader {

namespace {

const std::string prompt = "reader> ";

}  // namespace

#ifdef HAVE_HISTEDIT

namespace {

// The library is looked for when the program runs, which starts without it.
struct edit_library {
  decltype(&::el_init) init = nullptr;
  decltype(&::el_set) set = nullptr;
  decltype(&::el_gets) gets = nullptr;
  decltype(&::el_line) line = nullptr;
  decltype(&::el_insertstr) insert = nullptr;
  decltype(&::history_init) history_init = nullptr;
  decltype(&::history) history = nullptr;
  decltype(&::el_end) end = nullptr;
  decltype(&::history_end) history_end = nullptr;

  bool load() {
#ifdef __APPLE__
    void* const handle = dlopen("/usr/lib/libedit.dylib", RTLD_NOW);
#else
    void* const handle = dlopen("libedit.so.2", RTLD_NOW);
#endif
    return handle && find(handle, "el_init", &init) && find(handle, "el_set", &set) &&
           find(handle, "el_gets", &gets) && find(handle, "el_line", &line) &&
           find(handle, "el_insertstr", &insert) && find(handle, "history_init", &history_init) &&
           find(handle, "history", &history) && find(handle, "el_end", &end) &&
           find(handle, "history_end", &history_end);
  }

 private:
  template <typename F>
  static bool find(void* handle, const char* name, F* function) {
    *function = reinterpret_cast<F>(dlsym(handle, name));
    return *function;
  }
};

}  // namespace

struct terminal::editor {
  editor() = default;
  ~editor() {
    if (line) library.end(line);  // leaves the terminal as it was
    if (past) library.history_end(past);
  }
  editor(const editor&) = delete;
  editor& operator=(const editor&) = delete;

  // Null if the system or the terminal has none.
  static std::unique_ptr<editor> make(terminal* of) {
    const char* const kind = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe)
    auto made = std::make_unique<editor>();
    if (!kind || !*kind || kind == std::string("dumb") || !isatty(STDOUT_FILENO)) return nullptr;
    if (!made->library.load()) return nullptr;
    std::setlocale(LC_CTYPE, "");  // NOLINT(concurrency-mt-unsafe): there is one thread yet
    own = of;
    made->line = made->library.init("virtual-reader", stdin, stdout, stderr);
    made->past = made->library.history_init();
    if (!made->line || !made->past) return nullptr;
    const edit_library& l = made->library;
    HistEvent event;
    l.history(made->past, &event, H_SETSIZE, 500);
    l.history(made->past, &event, H_SETUNIQUE, 1);
    l.set(made->line, EL_PROMPT, show_prompt);
    l.set(made->line, EL_EDITOR, "emacs");
    l.set(made->line, EL_HIST, l.history, made->past);
    l.set(made->line, EL_GETCFN, read_key);
    l.set(made->line, EL_ADDFN, "complete", "completes a word", complete);
    l.set(made->line, EL_BIND, "^I", "complete", nullptr);
    l.set(made->line, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    return made;
  }

  std::optional<std::string> next_line() const {
    int count = 0;
    const char* const typed = library.gets(line, &count);
    if (!typed || count <= 0) return {};
    std::string text(typed, static_cast<std::size_t>(count));
    if (text.back() == '\n') text.pop_back();
    HistEvent event;
    if (text.find_first_not_of(' ') != text.npos) {
      library.history(past, &event, H_ENTER, text.c_str());
    }
    return text;
  }

  // Shows the lines in place of the line being typed, and that below them.
  void show_above(const std::string& lines) const {
    const LineInfo* const typed = library.line(line);
    winsize size{};
    const bool knows_size = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    const auto width = static_cast<std::size_t>(knows_size ? size.ws_col : 80);
    const auto column = prompt.size() + static_cast<std::size_t>(typed->cursor - typed->buffer);
    std::string bytes = "\r";
    if (column >= width) bytes += "\x1b[" + std::to_string(column / width) + "A";
    own->ending.write_all(STDOUT_FILENO, bytes + "\x1b[J" + lines);
    library.set(line, EL_REFRESH);
  }

 private:
  static char* show_prompt(EditLine*) {
    static std::string text = prompt;
    return text.data();
  }

  // Waits for a key, and shows meanwhile what comes to be shown. 0 at the end of input.
  static int read_key(EditLine*, wchar_t* key) {
    std::mbstate_t state{};
    for (;;) {
      pollfd both[2] = {{STDIN_FILENO, POLLIN, 0}, {own->wake_ends[0], POLLIN, 0}};
      if (poll(both, 2, -1) < 0) continue;
      if (own->ending.is_cancelled()) return 0;
      if (both[1].revents != 0) {
        const std::string lines = own->take_pending();
        if (!lines.empty()) own->edits->show_above(lines);
        own->shown.notify_all();
      }
      if (both[0].revents == 0) continue;
      char byte = 0;
      const ssize_t count = read(STDIN_FILENO, &byte, 1);
      if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (count <= 0) return 0;
      const std::size_t used = std::mbrtowc(key, &byte, 1, &state);
      if (used == static_cast<std::size_t>(-2)) continue;  // there is more of it
      if (used == static_cast<std::size_t>(-1)) state = {};
      if (used <= 1) return 1;
    }
  }

  static unsigned char complete(EditLine* line, int) {
    const edit_library& l = own->edits->library;
    const LineInfo* const typed = l.line(line);
    const std::string before(typed->buffer, typed->cursor);
    const std::string word = before.substr(before.rfind(' ') + 1);
    const std::vector<std::string> found = completions(before);
    if (found.empty()) return CC_ERROR;
    std::string common = found[0];
    for (const std::string& one : found) {
      const auto differs = std::mismatch(common.begin(), common.end(), one.begin(), one.end());
      common.erase(differs.first, common.end());
    }
    if (found.size() == 1) common += ' ';
    if (common.size() > word.size()) {
      l.insert(line, common.substr(word.size()).c_str());
      return CC_REFRESH;
    }
    std::string all;
    for (const std::string& one : found) all += one + "  ";
    own->edits->show_above(all + "\n");
    return CC_NORM;
  }

  static terminal* own;
  edit_library library;
  EditLine* line = nullptr;
  History* past = nullptr;
};

terminal* terminal::editor::own = nullptr;

#else

struct terminal::editor {
  static std::unique_ptr<editor> make(terminal*) { return nullptr; }
  std::optional<std::string> next_line() const { return {}; }
};

#endif

terminal::terminal() : input(longest_line), edits(editor::make(this)) {
  is_known = tcgetattr(STDIN_FILENO, &at_start) == 0;
  if (pipe(wake_ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (const int end : wake_ends) fcntl(end, F_SETFD, FD_CLOEXEC);
}

terminal::~terminal() {
  if (edits && is_known) tcsetattr(STDIN_FILENO, TCSADRAIN, &at_start);
  for (const int end : wake_ends) close(end);
}

void terminal::cancel() {
  tcflow(STDOUT_FILENO, TCOON);  // or what is being printed would wait for ^Q
  ending.cancel();
  input.cancel();
  if (write(wake_ends[1], "", 1) < 0) return;
}

std::optional<std::string> terminal::next_line() {
  if (!edits) return input.next_line();
  {
    const std::lock_guard<std::mutex> lock(mutex);
    is_editing = true;
  }
  auto line = edits->next_line();
  const std::string left = take_pending();
  {
    const std::lock_guard<std::mutex> lock(mutex);
    is_editing = false;
  }
  ending.write_all(STDOUT_FILENO, (line ? "" : "\n") + left);
  shown.notify_all();
  return line;
}

std::string terminal::take_pending() {
  const std::lock_guard<std::mutex> lock(mutex);
  char byte;
  if (!pending.empty() && read(wake_ends[0], &byte, 1) < 0) return {};
  return std::exchange(pending, "");
}

void terminal::print(const std::string& lines, const cancellation& until) {
  std::unique_lock<std::mutex> lock(mutex);
  if (is_editing) {
    pending += lines;
    if (write(wake_ends[1], "", 1) < 0) return;
    shown.wait(lock, [this] { return pending.empty(); });
  } else {
    lock.unlock();
    until.write_all(STDOUT_FILENO, lines);
  }
}

}  // namespace virtual_reader
