#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace virtual_reader {

namespace {

const std::string blanks = " \t\r";
constexpr std::size_t longest_text = 1'000'000;
const char hexadecimal[] = "0123456789ABCDEFabcdef";
const std::string letters = "tnrvf\\\"";
const std::string characters = "\t\n\r\v\f\\\"";

std::int64_t to_number(const std::string& text, std::int64_t least, std::int64_t most) {
  char* end = nullptr;
  errno = 0;
  const std::int64_t number =
      std::strtoll(text.c_str(), &end, text.find('x') == std::string::npos ? 10 : 16);
  const bool is_number = errno == 0 && !text.empty() && end == text.c_str() + text.size();
  if (is_number && number >= least && number <= most) return number;
  throw bad_line("'" + text + "' is no number from " + std::to_string(least) + " to " +
                 std::to_string(most));
}

// Reads the text that begins with the quote at `*place`, and moves behind the closing one.
std::string parse_quoted(const std::string& line, std::size_t* place) {
  std::string text;
  for (std::size_t i = *place + 1; i < line.size(); ++i) {
    if (line[i] == '"') {
      *place = i + 1;
      return text;
    }
    if (line[i] != '\\') {
      text += line[i];
      continue;
    }
    const std::size_t known = letters.find(line[++i]);
    if (known != std::string::npos) {
      text += characters[known];
    } else if (line[i] == 'x') {
      text += static_cast<char>(to_number("0x" + line.substr(i + 1, 2), 0, 0xFF));
      i += 2;
    } else {
      throw bad_line(R"(unknown escape; there are \t \n \r \v \f \\ \" and \xNN)");
    }
  }
  throw bad_line("the closing quote is missing");
}

}  // namespace

std::string quoted(const std::string& text) {
  std::string all = "\"";
  for (const char c : text) {
    const std::size_t known = characters.find(c);
    char code[5];
    std::snprintf(code, sizeof code, "\\x%02X", c & 0xFF);
    if (known != std::string::npos) {
      all += {'\\', letters[known]};
    } else {
      all += c >= ' ' && c <= '~' ? std::string(1, c) : code;
    }
  }
  return all + "\"";
}

words::words(const std::string& line) {
  for (std::size_t i = 0; (i = line.find_first_not_of(blanks, i)) < line.size();) {
    if (line[i] == '#') break;
    if (line[i] == '"') {
      all.push_back('"' + parse_quoted(line, &i));
      if (i < line.size() && blanks.find(line[i]) == std::string::npos) {
        throw bad_line("no blank behind a closing quote");
      }
    } else {
      const std::size_t start = i;
      i = std::min(line.find_first_of(blanks, i), line.size());
      all.push_back(line.substr(start, i - start));
    }
  }
}

void words::take_end() const {
  if (!at_end()) throw bad_line("");
}

std::string words::take() {
  if (at_end() || all[next][0] == '"') throw bad_line("");
  return all[next++];
}

std::string words::take_quoted() {
  if (at_end() || all[next][0] != '"') throw bad_line("");
  const std::string text = all[next++].substr(1);
  if (text.size() > longest_text) throw bad_line("the text is longer than a million bytes");
  return text;
}

std::int64_t words::take_number(std::int64_t least, std::int64_t most) {
  return to_number(take(), least, most);
}

card_id words::take_card() {
  const std::string text = take();
  const std::size_t size = std::min(text.find('/'), text.size());
  std::string digits = text.substr(0, size);
  if (size < 1 || size > 64 || digits.find_first_not_of(hexadecimal) != std::string::npos) {
    throw bad_line("'" + text + "' has not 1 to 64 hexadecimal digits, like 3AB1234/26");
  }
  auto bits = 4 * static_cast<std::int64_t>(size);
  if (size < text.size()) bits = to_number(text.substr(size + 1), 1, 256);
  card_id id;
  for (std::size_t place = 0; place < size; ++place) {
    const std::int64_t digit = std::stoi(digits.substr(size - 1 - place, 1), nullptr, 16);
    id.values[place / 2] |= digit << (place % 2 * 4);
  }
  for (auto bit = static_cast<std::size_t>(bits); bit < 4 * size; ++bit) {
    if (id.values[bit / 8] >> bit % 8 & 1)
      throw bad_line("'" + text + "' does not fit in its bits");
  }
  id.values.back() = bits;
  std::transform(digits.begin(), digits.end(), digits.begin(), ::toupper);
  id.text = digits + "/" + std::to_string(bits);
  return id;
}

std::string words::take_call() {
  const std::string name = take();
  if (!is_call(name)) throw bad_line("'" + name + "' is no call; there are " + call_names);
  return name;
}

}  // namespace virtual_reader
