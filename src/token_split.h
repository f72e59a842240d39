// The tokenizer of the input side.
#pragma once

#include <string_view>
#include <utility>

// Splits off the first run of characters that are not white space. There is no quoting. Returns
// that token, empty if there is none, and the remainder, which is not trimmed: it begins with the
// white space that ended the token. Both are views into `text`.
std::pair<std::string_view, std::string_view> token_split(std::string_view text);
