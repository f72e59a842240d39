// The tokenizer of the input side.
#pragma once

#include <string_view>

// The token is empty when the text holds none.
struct token_and_rest {
  std::string_view token;
  std::string_view rest;  // not trimmed: begins with the white space that ended the token
};

// Splits off the first run of characters that are not white space. There is no quoting. Both
// results are views into `text`.
token_and_rest token_split(std::string_view text);
