#include "expectation.h"

#include <algorithm>

namespace virtual_reader {

namespace {

// Where the whole word ends that is found from there on; npos if there is none.
std::size_t find_word(const std::string& text, const std::string& word, std::size_t from) {
  for (std::size_t at = text.find(word, from); at != text.npos; at = text.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    const bool begins = at == 0 || text[at - 1] == ' ';
    if (begins && (end == text.size() || text[end] == ' ')) return end;
  }
  return text.npos;
}

bool is_limit_next(const tokens& given) { return given.left() == 2 && given.is_next("within"); }

std::chrono::milliseconds take_limit(tokens* given, std::chrono::milliseconds usual) {
  if (is_limit_next(*given)) {
    given->take();
    usual = std::chrono::milliseconds(given->take_number(0, 86'400'000));
  }
  given->take_end();
  return usual;
}

}  // namespace

const std::vector<std::string>& pattern::kinds() {
  static const std::vector<std::string> all = {
      "agent",        "beep",  "call",  "card",  "command",   "config",  "connected",
      "disconnected", "enter", "fault", "input", "led",       "plugged", "received",
      "replay",       "reset", "says",  "sent",  "unplugged", "verb"};
  return all;
}

std::vector<std::string> pattern::details_of(const std::string& kind) {
  if (kind == "agent") return {"attached", "detached", "refused:"};
  if (kind == "beep") return {"long", "short"};
  if (kind == "enter" || kind == "call") return call_names;
  if (kind == "fault") return {"delay", "fail", "hang", "vanish"};
  if (kind == "command") return {"exited"};
  if (kind == "input") return {"ended"};
  if (kind == "led") return {"amber", "auto", "green", "off", "red"};
  if (kind == "plugged") return {"in"};
  if (kind == "replay") return {"diverged:", "ended"};
  return {};
}

pattern::pattern(tokens* given) {
  do {
    if (given->is_quoted()) {
      const std::string text = given->take_quoted();
      if (text.empty()) throw syntax_error("an empty text cannot be found");
      all.push_back({without_controls(text), quoted(text)});
    } else {
      all.push_back({given->take(), {}});
    }
    const word& last = all.back();
    const bool is_name = last.plain.find_first_not_of("->0123456789") != std::string::npos;
    std::vector<std::string> known;
    if (all.size() == 1) known = kinds();
    if (all.size() == 2 && last.quotes.empty() && is_name) known = details_of(all[0].plain);
    if (!known.empty() && std::find(known.begin(), known.end(), last.plain) == known.end()) {
      throw syntax_error("no entry of the record has '" + last.plain + "' there" +
                         suggestion(last.plain, known));
    }
  } while (!given->at_end() && !is_limit_next(*given));
}

bool pattern::matches(const std::string& entry_text) const {
  std::size_t place = 0;
  for (const word& one : all) {
    const std::size_t from = place;
    place = find_word(entry_text, one.plain, from);
    if (!one.quotes.empty()) place = std::min(place, find_word(entry_text, one.quotes, from));
    if (place == entry_text.npos || (from == 0 && place != one.plain.size())) return false;
  }
  return true;
}

std::string pattern::text() const {
  std::string text;
  for (const word& one : all) {
    text += (text.empty() ? "" : " ") + (one.quotes.empty() ? one.plain : one.quotes);
  }
  return text;
}

expectation::expectation(tokens* given)
    : is_negative(given->take_if("no")),
      wanted(given),
      limit(take_limit(given, std::chrono::milliseconds(is_negative ? 500 : 5000))) {}

std::string expectation::text() const {
  return (is_negative ? "expected no " : "expected ") + wanted.text() + " within " +
         std::to_string(limit.count()) + " ms";
}

}  // namespace virtual_reader
