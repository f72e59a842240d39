#include "expectation.h"

#include <regex.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>

#include "call.h"
#include "cards.h"
#include "configuration.h"
#include "fault.h"

namespace virtual_reader {

namespace {

using std::chrono::milliseconds;

const std::string colors = "red|green|amber|off|auto";
// What follows each kind, word by word, of which a pattern has the first: one of several; CALL; N,
// a number; or `...`, anything. LINE, CARD and SETTINGS have patterns of their own.
const std::map<std::string, std::string> forms = {{"agent", "attached|detached|refused: ..."},
                                                  {"beep", "short|long N"},
                                                  {"call", "CALL ..."},
                                                  {"card", "CARD"},
                                                  {"command", "exited ..."},
                                                  {"config", "SETTINGS"},
                                                  {"connected", ""},
                                                  {"disconnected", ""},
                                                  {"enter", "CALL ..."},
                                                  {"fault", "delay|fail|hang|vanish CALL ..."},
                                                  {"input", "ended"},
                                                  {"led", colors},
                                                  {"plugged", "in"},
                                                  {"received", "LINE"},
                                                  {"replay", "diverged:|ended ..."},
                                                  {"reset", ""},
                                                  {"says", "..."},
                                                  {"sent", "LINE"},
                                                  {"unplugged", ""},
                                                  {"verb", "..."},
                                                  {"verdict", "..."}};

std::vector<std::string> split(const std::string& text, char separator) {
  std::istringstream stream(text);
  std::vector<std::string> parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

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

// So does the event and, if the pattern has an arrow, its result.
bool begins_with(const std::string& details, const std::string& wanted) {
  const std::size_t arrow = wanted.find(" -> "), its = details.find(" -> ");
  return begins_with_words(details.substr(0, its), wanted.substr(0, arrow)) &&
         (arrow == wanted.npos ||
          (its != details.npos && begins_with_words(details.substr(its), wanted.substr(arrow))));
}

// The digits without leading zeros.
std::string significant(const std::string& digits) {
  return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
}

std::vector<std::string> setting_names() {
  std::vector<std::string> names;
  for (const std::string& record : to_text(factory_defaults, false)) {
    for (const std::string& each : split(record, ' ')) {
      names.push_back(each.substr(0, each.find('=')));
    }
  }
  return names;
}

}  // namespace

std::vector<std::string> pattern::kinds() {
  std::vector<std::string> all;
  for (const auto& form : forms) all.push_back(form.first);
  return all;
}

const std::vector<std::string>& pattern::effects() {
  static const std::vector<std::string> all = {"beep", "config", "led", "reset"};
  return all;
}

pattern::pattern(tokens* line) : kind(line->take_one_of(kinds())), written(kind) {
  const std::string& form = forms.at(kind);
  fits = form == "LINE"       ? read_line(line)
         : form == "SETTINGS" ? read_settings(line)
                              : read_details(line, form);
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

pattern::test pattern::read_settings(tokens* line) {
  std::vector<std::string> settings;
  while (!is_end(*line)) {
    const std::string setting = line->take();
    const std::size_t equals = std::min(setting.find('='), setting.size());
    const std::string name = setting.substr(0, equals);
    const std::vector<std::string> names = setting_names();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      throw syntax_error("unknown setting '" + name + "'" + suggestion(name, names));
    }
    tokens value(setting.substr(std::min(equals + 1, setting.size())));
    if (value.at_end()) throw syntax_error("expected " + name + "=VALUE, got '" + setting + "'");
    settings.push_back(name + "=" + std::to_string(value.take_number(INT16_MIN, INT16_MAX)));
    written += " " + settings.back();
  }
  return [settings](const std::string& details) {
    return std::all_of(settings.begin(), settings.end(), [&](const std::string& each) {
      return (" " + details + " ").find(" " + each + " ") != std::string::npos;
    });
  };
}

// Upper case and leading zeros do not matter; without BITS any number of them fits.
pattern::test pattern::read_card(tokens* line) {
  tokens before = *line;
  const std::string typed = before.take(), card = to_text(take_card(*line));
  const std::size_t size = card.find('/');
  const std::string bits = typed.find('/') == typed.npos ? "" : card.substr(size);
  written += " " + card.substr(0, size) + bits;
  return [digits = significant(card.substr(0, size)), bits](const std::string& details) {
    const std::size_t end = details.find('/');
    return end != details.npos && significant(details.substr(0, end)) == digits &&
           (bits.empty() || details.substr(end) == bits);
  };
}

pattern::test pattern::read_details(tokens* line, const std::string& form) {
  for (const std::string& step : split(form, ' ')) {
    if (is_end(*line)) break;
    if (step == "CARD") {
      if (!line->take_if("raw")) return read_card(line);
      written += " " + to_text(take_raw_card(*line));
    } else if (step == "...") {
      while (!is_end(*line)) {
        written += " " + (line->is_quoted() ? quoted(line->take_quoted()) : line->take());
      }
    } else {
      written += " " + (step == "CALL" ? line->take_call()
                        : step == "N"  ? std::to_string(line->take_number(0, 255))
                                       : line->take_one_of(split(step, '|')));
    }
  }
  const bool is_call = (kind == "call" || kind == "enter") && written != kind;
  if (is_call && !parse_call(written)) throw syntax_error("'" + written + "' matches no call");
  return [wanted = written.substr(std::min(kind.size() + 1, written.size()))](
             const std::string& details) { return begins_with(details, wanted); };
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
    led = line->take_one_of(split(colors + "|dark", '|'));
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
