#include "token_split.h"

#include "white_space.h"

std::pair<std::string_view, std::string_view> token_split(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size() && is_white_space(text[begin])) ++begin;
  std::size_t end = begin;
  while (end < text.size() && !is_white_space(text[end])) ++end;
  return {text.substr(begin, end - begin), text.substr(end)};
}
