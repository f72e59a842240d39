#include "expectation.h"

#include <regex.h>

#include <algorithm>
#include <map>
#include <memory>

#include "call.h"
#include "configuration.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

const std::vector<std::string> colors = {"red", "green", "amber", "off", "auto"};

bool is_end(const tokens& line) { return line.at_end() || line.is_next("within"); }

milliseconds take_limit(tokens* line, milliseconds usual) {
  if (line->take_if("within")) usual = milliseconds(line->take_number(0, fault::longest.count()));
  line->take_end();
  return usual;
}

// The words at the beginning of the text, and nothing or a space after them.
bool begins_with_words(const std::string& text, const std::string& words) {
  return text.rfind(words, 0) == 0 &&
         (words.empty() || text.size() == words.size() || text[words.size()] == ' ');
}

bool begins_with(const std::vector<std::int64_t>& all, const std::vector<std::int64_t>& wanted) {
  return wanted.size() <= all.size() && std::equal(wanted.begin(), wanted.end(), all.begin());
}

// The digits without leading zeros.
std::string significant(const std::string& digits) {
  return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
}

const std::vector<std::string>& setting_names() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> found;
    for (const std::string& record : to_text(factory_defaults, false)) {
      for (std::size_t start = 0, end; start < record.size(); start = end + 1) {
        end = std::min(record.find(' ', start), record.size());
        found.push_back(record.substr(start, record.find('=', start) - start));
      }
    }
    return found;
  }();
  return names;
}

}  // namespace

const std::vector<std::string>& pattern::kinds() {
  static const std::vector<std::string> all = {
      "agent",        "beep",  "call",  "card",  "command",   "config",  "connected",
      "disconnected", "enter", "fault", "input", "led",       "plugged", "received",
      "replay",       "reset", "says",  "sent",  "unplugged", "verb",    "verdict"};
  return all;
}

const std::vector<std::string>& pattern::effects() {
  static const std::vector<std::string> all = {"beep", "config", "led", "reset"};
  return all;
}

std::vector<std::string> pattern::details_of(const std::string& kind) {
  if (kind == "agent") return {"attached", "detached", "refused:"};
  if (kind == "beep") return {"short", "long"};
  if (kind == "enter" || kind == "call") return call_names;
  if (kind == "config") return setting_names();
  if (kind == "fault") return {"delay", "fail", "hang", "vanish"};
  if (kind == "command") return {"exited"};
  if (kind == "input") return {"ended"};
  if (kind == "led") return colors;
  if (kind == "plugged") return {"in"};
  if (kind == "replay") return {"diverged:", "ended"};
  return {};
}

pattern::pattern(tokens* line) : kind(line->take_one_of(kinds())), written(kind) {
  fits = kind == "received" || kind == "sent" ? read_line(line) : read_details(line);
}

bool pattern::matches(const std::string& event_text) const {
  if (!begins_with_words(event_text, kind)) return false;
  return fits(event_text.substr(std::min(kind.size() + 1, event_text.size())));
}

// A whole line, as it is or in quotes, or a regular expression in slashes.
pattern::test pattern::read_line(tokens* line) {
  if (line->at_end()) return [](const std::string&) { return true; };
  if (line->is_quoted()) {
    const std::string text = without_controls(line->take_quoted());
    written += " " + text;
    return [text](const std::string& details) { return details == text; };
  }
  // A comment, an apostrophe or `within` may belong to what was printed; a limit ends the line.
  std::string text = line->take_rest();
  const std::size_t at = text.rfind(" within ");
  if (at != text.npos) {
    const std::string number = text.substr(at + 8);
    const std::size_t digits = number.find_first_not_of("0123456789");
    if (digits == number.npos) {
      *line = tokens(text.substr(at));
      text.erase(at);
    } else if (digits > 0) {
      throw syntax_error("expected the end after `within MS`, got '" + number.substr(digits) +
                         "'; a text that has it belongs in quotes");
    }
  }
  written += " " + text;
  if (text[0] != '/') return [text](const std::string& details) { return details == text; };
  if (text.size() < 3 || text.back() != '/') {
    throw syntax_error(
        "expected a regular expression and `/`; a text that begins so belongs in quotes");
  }
  const std::shared_ptr<regex_t> compiled(new regex_t, [](regex_t* held) {
    regfree(held);
    delete held;
  });
  const int error =
      regcomp(compiled.get(), text.substr(1, text.size() - 2).c_str(), REG_EXTENDED | REG_NOSUB);
  if (error != 0) {
    char why[200];
    regerror(error, compiled.get(), why, sizeof why);
    throw syntax_error("invalid regular expression: " + std::string(why));
  }
  return [compiled](const std::string& details) {
    return regexec(compiled.get(), details.c_str(), 0, nullptr, 0) == 0;
  };
}

pattern::test pattern::read_details(tokens* line) {
  const auto add = [this](const std::string& word) { written += " " + word; };
  const auto add_numbers = [&](std::vector<std::int64_t>* all) {
    while (line->is_number()) {
      all->push_back(line->take_number(INT64_MIN, INT64_MAX));
      add(std::to_string(all->back()));
    }
  };
  const auto words = [this] {  // the event begins with what was written
    return [text = written.substr(std::min(kind.size() + 1, written.size()))](
               const std::string& details) { return begins_with_words(details, text); };
  };
  if (is_end(*line)) return [](const std::string&) { return true; };
  if (kind == "led") {
    add(line->take_one_of(colors));
  } else if (kind == "beep") {
    add(line->take_one_of(details_of(kind)));
    if (!is_end(*line)) add(std::to_string(line->take_number(0, 255)));
  } else if (kind == "config") {
    std::vector<std::string> settings;
    while (!is_end(*line)) {
      const std::string setting = line->take();
      const std::size_t equals = std::min(setting.find('='), setting.size());
      const std::string name = setting.substr(0, equals);
      if (std::find(setting_names().begin(), setting_names().end(), name) ==
          setting_names().end()) {
        throw syntax_error("unknown setting '" + name + "'" + suggestion(name, setting_names()));
      }
      tokens value(setting.substr(std::min(equals + 1, setting.size())));
      if (value.at_end()) throw syntax_error("expected " + name + "=VALUE, got '" + setting + "'");
      settings.push_back(name + "=" + std::to_string(value.take_number(INT16_MIN, INT16_MAX)));
      add(settings.back());
    }
    return [settings](const std::string& details) {
      return std::all_of(settings.begin(), settings.end(), [&](const std::string& each) {
        return (" " + details + " ").find(" " + each + " ") != std::string::npos;
      });
    };
  } else if (kind == "card" && line->take_if("raw")) {
    add("raw");
    std::vector<std::int64_t> numbers;
    add_numbers(&numbers);
  } else if (kind == "card") {
    // Upper case and leading zeros do not matter; without BITS any number of them fits.
    tokens before = *line;
    const std::string typed = before.take(), card = line->take_card().text;
    const std::size_t size = card.find('/');
    const std::string bits = typed.find('/') == typed.npos ? "" : card.substr(size);
    add(card.substr(0, size) + bits);
    return [digits = significant(card.substr(0, size)), bits](const std::string& details) {
      const std::size_t end = details.find('/');
      return end != details.npos && significant(details.substr(0, end)) == digits &&
             (bits.empty() || details.substr(end) == bits);
    };
  } else if (kind == "call" || kind == "enter") {
    const std::string name = line->take_call();
    std::vector<std::int64_t> arguments;
    add(name);
    add_numbers(&arguments);
    std::string result;
    if (kind == "call" && line->take_if("->")) {
      add("->");
      const std::size_t start = written.size();
      std::vector<std::int64_t> values;
      if (line->is_quoted()) {
        add(quoted(line->take_quoted()));
      } else if (line->take_if("null")) {
        add("null");
      }
      add_numbers(&values);
      result = written.substr(std::min(start + 1, written.size()));
    }
    return [=](const std::string& details) {
      const auto made = parse_call("call " + details);
      const std::size_t arrow = details.find(" -> ");
      return made && made->name == name && begins_with(made->arguments, arguments) &&
             (result.empty() ||
              (arrow != details.npos && begins_with_words(details.substr(arrow + 4), result)));
    };
  } else {
    const std::vector<std::string> known = details_of(kind);
    if (!known.empty()) add(line->take_one_of(known));
    if (kind == "fault" && !is_end(*line)) add(line->take_call());
    const bool is_open = kind == "agent" || kind == "command" || kind == "fault" ||
                         kind == "replay" || kind == "says" || kind == "verb" || kind == "verdict";
    while (is_open && !is_end(*line)) {
      add(line->is_quoted() ? quoted(line->take_quoted()) : line->take());
    }
  }
  return words();
}

expectation::expectation(tokens* line) : what(form::next), limit(5000) {
  if (line->take_if("nothing")) {
    what = form::nothing;
    if (!line->take_if("for")) throw syntax_error("");
    limit = milliseconds(line->take_number(0, fault::longest.count()));
    line->take_end();
    return;
  }
  if (line->take_if("eventually")) what = form::eventually;
  if (what == form::next && line->take_if("no")) {
    what = form::no;
    limit = milliseconds(500);
  }
  tokens ahead = *line;
  if (what == form::next && ahead.take_if("led") && ahead.take_if("is")) {
    *line = ahead;
    what = form::state;
    std::vector<std::string> states = colors;
    states.emplace_back("dark");
    led = line->take_one_of(states);
  } else {
    wanted.emplace_back(line);
  }
  limit = take_limit(line, limit);
}

std::string expectation::effect() const {
  const std::vector<std::string>& all = pattern::effects();
  const bool names_effect = is_positive() && !wanted.empty() &&
                            std::find(all.begin(), all.end(), wanted[0].kind) != all.end();
  return names_effect ? wanted[0].kind : "";
}

std::string expectation::text() const {
  if (what == form::nothing) return "expected nothing";
  if (what == form::state) return "expected led to be " + led;
  return (what == form::no ? "expected no " : "expected ") + wanted[0].text();
}

}  // namespace virtual_reader
