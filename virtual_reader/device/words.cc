#include "words.h"

#include <charconv>

namespace virtual_reader {

namespace {

const std::string letters = "tnrvf\\\"";
const std::string characters = "\t\n\r\v\f\\\"";

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

template <typename T>
bool parse_all(const std::string& text, int base, T* number) {
  const char* const end = text.data() + text.size();
  const auto [place, error] = std::from_chars(text.data(), end, *number, base);
  return error == std::errc() && place == end;
}

// Reads the text in quotes that begins at `*place`, behind its quote, and moves behind its end.
std::string parse_quoted(const std::string& line, std::size_t* place) {
  std::string text;
  for (std::size_t i = *place; i < line.size(); ++i) {
    if (line[i] == '"') {
      *place = i + 1;
      return text;
    }
    if (line[i] != '\\') {
      text += line[i];
      continue;
    }
    const char escape = ++i < line.size() ? line[i] : ' ';
    const std::size_t known = letters.find(escape);
    unsigned char code = 0;
    if (known != std::string::npos) {
      text += characters[known];
    } else if (escape == 'x' && i + 2 < line.size() &&
               parse_all(line.substr(i + 1, 2), 16, &code)) {
      text += static_cast<char>(code);
      i += 2;
    } else {
      throw bad_line(R"(unknown escape; there are \t \n \r \v \f \\ \" and \xNN)");
    }
  }
  throw bad_line("the closing quote is missing");
}

}  // namespace

bool parse_integer(const std::string& text, std::int64_t* number) {
  const std::size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
  if (text.compare(sign, 2, "0x") != 0) return parse_all(text, 10, number);
  const std::string magnitude = text.substr(sign + 2);
  return magnitude[0] != '-' && parse_all(text.substr(0, sign) + magnitude, 16, number);
}

std::string quoted(const std::string& text) {
  static const char digits[] = "0123456789ABCDEF";
  std::string all = "\"";
  for (const char c : text) {
    const std::size_t known = characters.find(c);
    const auto code = static_cast<unsigned char>(c);
    if (known != std::string::npos) {
      all += {'\\', letters[known]};
    } else if (code < ' ' || code > '~') {
      all += {'\\', 'x', digits[code >> 4], digits[code & 0xF]};
    } else {
      all += c;
    }
  }
  return all + "\"";
}

words::words(const std::string& line) {
  for (std::size_t i = 0; i < line.size();) {
    if (is_blank(line[i])) {
      ++i;
    } else if (line[i] == '#') {
      break;
    } else if (line[i] == '"') {
      all.push_back({parse_quoted(line, &++i), true});
      if (i < line.size() && !is_blank(line[i])) throw bad_line("no blank behind a closing quote");
    } else {
      const std::size_t start = i;
      while (i < line.size() && !is_blank(line[i])) ++i;
      all.push_back({line.substr(start, i - start), false});
    }
  }
}

std::string words::take(bool quoted_word) {
  if (at_end() || all[next].quoted != quoted_word) throw bad_line("");
  return all[next++].text;
}

std::string words::take() { return take(false); }

std::string words::take_quoted() { return take(true); }

std::int64_t words::take_number(std::int64_t least, std::int64_t most) {
  const std::string text = take();
  std::int64_t number = 0;
  if (!parse_integer(text, &number) || number < least || number > most) {
    throw bad_line("'" + text + "' is no number from " + std::to_string(least) + " to " +
                   std::to_string(most));
  }
  return number;
}

bool words::take_if(const char* keyword) {
  if (at_end() || all[next].quoted || all[next].text != keyword) return false;
  ++next;
  return true;
}

bool words::number_is_next() const {
  std::int64_t number = 0;
  return !at_end() && !all[next].quoted && parse_integer(all[next].text, &number);
}

void words::take_end() const {
  if (!at_end()) throw bad_line("");
}

}  // namespace virtual_reader
