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

// Reads the quoted text that begins at `*place`, behind its quote.
std::string parse_quoted(const std::string& line, std::size_t* place, std::string* text) {
  for (std::size_t& i = *place; i < line.size(); ++i) {
    if (line[i] == '"') {
      ++i;
      return i == line.size() || is_blank(line[i]) ? "" : "no blank behind the closing quote";
    }
    if (line[i] != '\\') {
      *text += line[i];
      continue;
    }
    const char escape = ++i < line.size() ? line[i] : ' ';
    const std::size_t known = letters.find(escape);
    unsigned char code = 0;
    if (known != std::string::npos) {
      *text += characters[known];
    } else if (escape == 'x' && i + 2 < line.size() &&
               parse_all(line.substr(i + 1, 2), 16, &code)) {
      *text += static_cast<char>(code);
      i += 2;
    } else {
      return R"(unknown escape; there are \t \n \r \v \f \\ \" and \xNN)";
    }
  }
  return "the closing quote is missing";
}

}  // namespace

std::string split_words(const std::string& line, std::vector<word>* words) {
  for (std::size_t i = 0; i < line.size();) {
    if (is_blank(line[i])) {
      ++i;
      continue;
    }
    if (line[i] == '#') break;
    word next;
    if (line[i] == '"') {
      next.quoted = true;
      const std::string error = parse_quoted(line, &++i, &next.text);
      if (!error.empty()) return error;
    } else {
      while (i < line.size() && !is_blank(line[i])) next.text += line[i++];
    }
    words->push_back(std::move(next));
  }
  return {};
}

bool parse_integer(const std::string& text, std::int64_t* number) {
  const std::size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
  if (text.compare(sign, 2, "0x") != 0) return parse_all(text, 10, number);
  const std::string magnitude = text.substr(sign + 2);
  if (!magnitude.empty() && magnitude[0] == '-') return false;
  return parse_all(text.substr(0, sign) + magnitude, 16, number);
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

}  // namespace virtual_reader
