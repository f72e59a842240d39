#include "tokens.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <utility>

#include "call.h"

namespace virtual_reader {

namespace {

const std::string spaces = " \t\r";

std::int64_t to_number(const std::string& text, std::int64_t least, std::int64_t most) {
  char* end = nullptr;
  errno = 0;
  const std::int64_t number =
      std::strtoll(text.c_str(), &end, text.find('x') == std::string::npos ? 10 : 16);
  const bool is_number = errno == 0 && !text.empty() && end == text.c_str() + text.size();
  if (is_number && number >= least && number <= most) return number;
  throw syntax_error("expected a number from " + std::to_string(least) + " to " +
                     std::to_string(most) + ", got '" + text + "'");
}

// How many letters to change, add or leave out, to make one of the other.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const bool same = std::tolower(a[i] & 0xFF) == std::tolower(b[j] & 0xFF);
      const std::size_t changed = diagonal + (same ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string suggestion(const std::string& written, const std::vector<std::string>& known) {
  constexpr std::size_t longest = 40;  // of what is known, and so of what could be meant
  std::size_t least = std::min<std::size_t>(written.size() / 2 + 1, 6);
  std::string best;
  for (const std::string& one : known) {
    const bool is_beginning = written.size() > 2 && one.rfind(written, 0) == 0;
    const std::size_t far = is_beginning               ? 1
                            : written.size() > longest ? longest
                                                       : distance(written, one);
    if (far < least) best = one;
    least = std::min(far, least);
  }
  return best.empty() ? "" : "; did you mean '" + best + "'?";
}

std::string wrong_choice(const std::string& written, const std::vector<std::string>& known) {
  std::string choice;
  for (const std::string& one : known) {
    choice += (choice.empty() ? "" : &one == &known.back() ? " or " : ", ") + one;
  }
  return "expected " + choice + ", got '" + without_controls(written) + "'" +
         suggestion(written, known);
}

tokens::tokens(std::string whole_line) : line(std::move(whole_line)), next(read(0)) {}

tokens::token tokens::read(std::size_t from) {
  if (line.size() > longest_line) throw syntax_error("the line is longer than 4 MiB");
  const std::size_t start = line.find_first_not_of(spaces, from);
  if (start == line.npos || line[start] == '#')
    return {token::end, "", std::min(start, line.size())};
  place = start;
  if (line[start] == '"') {
    std::string text = parse_quoted(line, &place);
    if (place < line.size() && spaces.find(line[place]) == spaces.npos) {
      throw syntax_error("expected a space behind the closing quote");
    }
    return {token::in_quotes, std::move(text), start};
  }
  place = std::min(line.find_first_of(spaces, start), line.size());
  return {token::plain, line.substr(start, place - start), start};
}

tokens::token tokens::pop() {
  token taken = std::move(next);
  next = read(place);
  return taken;
}

void tokens::take_end() const {
  if (!at_end()) throw syntax_error("expected the end, got '" + without_controls(next.text) + "'");
}

bool tokens::is_number() const {
  return next.kind == token::plain &&
         next.text.find_first_not_of("-0123456789") == std::string::npos;
}

bool tokens::take_if(const std::string& keyword) {
  if (!is_next(keyword)) return false;
  pop();
  return true;
}

std::string tokens::take() {
  if (next.kind != token::plain) throw syntax_error("");
  return pop().text;
}

std::string tokens::take_quoted() {
  if (next.kind != token::in_quotes) throw syntax_error("");
  return pop().text;
}

std::string tokens::take_one_of(const std::vector<std::string>& known) {
  const std::string taken = at_end() ? "" : take();
  if (std::find(known.begin(), known.end(), taken) != known.end()) return taken;
  throw syntax_error(wrong_choice(taken, known));
}

std::int64_t tokens::take_number(std::int64_t least, std::int64_t most) {
  return to_number(take(), least, most);
}

std::vector<std::int64_t> tokens::take_numbers() {
  std::vector<std::int64_t> all;
  while (is_number()) all.push_back(take_number(INT64_MIN, INT64_MAX));
  return all;
}

std::string tokens::take_call() {
  if (at_end()) throw syntax_error("");
  return take_one_of(call_names);
}

std::string tokens::take_rest() {
  const std::size_t end = line.find_last_not_of(spaces) + 1;
  const std::size_t start = std::min(next.start, end);
  next = {token::end, "", line.size()};
  return line.substr(start, end - start);
}

}  // namespace virtual_reader
