#include "quoted.h"

#include <cstdio>

namespace virtual_reader {

namespace {

const std::string letters = "tnrvf\\\"";
const std::string characters = "\t\n\r\v\f\\\"";
constexpr std::size_t longest = 1'000'000;

std::string code_of(char c) {
  char code[5];
  std::snprintf(code, sizeof code, "\\x%02X", c & 0xFF);
  return code;
}

}  // namespace

std::string quoted(const std::string& text) {
  std::string all = "\"";
  for (const char c : text) {
    const std::size_t known = characters.find(c);
    if (known != std::string::npos) {
      all += {'\\', letters[known]};
    } else if (c >= ' ' && c <= '~') {
      all += c;
    } else {
      all += code_of(c);
    }
  }
  return all + "\"";
}

std::string parse_quoted(const std::string& line, std::size_t* place) {
  const std::string digits = "0123456789ABCDEFabcdef";
  std::string text;
  for (std::size_t i = *place + 1; i < line.size(); ++i) {
    if (line[i] == '"') {
      if (text.size() > longest) throw syntax_error("the text is longer than a million bytes");
      *place = i + 1;
      return text;
    }
    if (line[i] != '\\') {
      text += line[i];
      continue;
    }
    if (++i == line.size()) break;
    const std::size_t known = letters.find(line[i]);
    if (known != std::string::npos) {
      text += characters[known];
      continue;
    }
    const std::string code = line.substr(i + 1, 2);
    if (line[i] != 'x' || code.size() < 2 || code.find_first_not_of(digits) != std::string::npos) {
      throw syntax_error(R"(unknown escape; there are \t \n \r \v \f \\ \" and \xNN)");
    }
    text += static_cast<char>(std::stoi(code, nullptr, 16));
    i += 2;
  }
  throw syntax_error("the closing quote is missing");
}

std::string without_controls(const std::string& line) {
  std::string all;
  for (const char c : line) {
    const bool is_control = (c >= 0 && c < ' ') || c == 0x7F;
    is_control ? all += code_of(c) : all += c;
  }
  return all;
}

std::string plain_line(const std::string& line) {
  std::string all;
  const std::size_t end = line.empty() || line.back() != '\r' ? line.size() : line.size() - 1;
  for (std::size_t i = 0; i < end; ++i) {
    const std::size_t code = line.find_first_not_of("0123456789;", i + 2);
    const bool is_color = line.compare(i, 2, "\x1b[") == 0 && code < end && line[code] == 'm';
    is_color ? void(i = code) : void(all += line[i]);
  }
  return without_controls(all);
}

}  // namespace virtual_reader
