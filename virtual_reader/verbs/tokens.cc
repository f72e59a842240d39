#include "tokens.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace virtual_reader {

namespace {

const std::string blanks = " \t\r";
const char hexadecimal[] = "0123456789ABCDEFabcdef";

std::int64_t to_number(const std::string& text, std::int64_t least, std::int64_t most) {
  char* end = nullptr;
  errno = 0;
  const std::int64_t number =
      std::strtoll(text.c_str(), &end, text.find('x') == std::string::npos ? 10 : 16);
  const bool is_number = errno == 0 && !text.empty() && end == text.c_str() + text.size();
  if (is_number && number >= least && number <= most) return number;
  throw syntax_error("'" + text + "' is no number from " + std::to_string(least) + " to " +
                     std::to_string(most));
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
    const std::size_t far = written.size() > longest ? longest : distance(written, one);
    if (far < least) best = one;
    least = std::min(far, least);
  }
  return best.empty() ? "" : ", did you mean '" + best + "'?";
}

tokens::tokens(const std::string& line) {
  if (line.size() > longest_line) throw syntax_error("the line is longer than 4 MiB");
  for (std::size_t i = 0; (i = line.find_first_not_of(blanks, i)) < line.size();) {
    if (line[i] == '#') break;
    if (line[i] == '"') {
      all.push_back('"' + parse_quoted(line, &i));
      if (i < line.size() && blanks.find(line[i]) == std::string::npos) {
        throw syntax_error("no blank behind a closing quote");
      }
    } else {
      const std::size_t start = i;
      i = std::min(line.find_first_of(blanks, i), line.size());
      all.push_back(line.substr(start, i - start));
    }
  }
}

void tokens::take_end() const {
  if (!at_end()) throw syntax_error("");
}

std::string tokens::take() {
  if (at_end() || all[next][0] == '"') throw syntax_error("");
  return all[next++];
}

std::string tokens::take_quoted() {
  if (at_end() || all[next][0] != '"') throw syntax_error("");
  return all[next++].substr(1);
}

std::int64_t tokens::take_number(std::int64_t least, std::int64_t most) {
  return to_number(take(), least, most);
}

card_id tokens::take_card() {
  const std::string text = take();
  const std::size_t size = std::min(text.find('/'), text.size());
  std::string digits = text.substr(0, size);
  if (size < 1 || size > 64 || digits.find_first_not_of(hexadecimal) != std::string::npos) {
    throw syntax_error("'" + text + "' has not 1 to 64 hexadecimal digits, like 3AB1234/26");
  }
  auto bits = 4 * static_cast<std::int64_t>(size);
  if (size < text.size()) bits = to_number(text.substr(size + 1), 1, 256);
  std::transform(digits.begin(), digits.end(), digits.begin(), ::toupper);
  card_id id = card_of(digits + "/" + std::to_string(bits));
  for (auto bit = static_cast<std::size_t>(bits); bit < 4 * size; ++bit) {
    if (id.values[bit / 8] >> bit % 8 & 1)
      throw syntax_error("'" + text + "' does not fit in its bits");
  }
  return id;
}

std::string tokens::take_call() {
  const std::string name = take();
  if (!is_call(name))
    throw syntax_error("'" + name + "' is no call" + suggestion(name, call_names));
  return name;
}

}  // namespace virtual_reader
