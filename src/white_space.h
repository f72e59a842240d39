// White space as the agent knows it, whatever the locale.
#pragma once

// Space, tab, line feed, vertical tab, form feed, carriage return; no byte of 128 or above.
constexpr bool is_white_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
