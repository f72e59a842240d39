// From a line of standard input to its work item.
#pragma once

#include <string_view>

#include "card_reader_state.h"

// Splits off the reader name and the command word and returns what `make_action` makes of them, or
// a `print_error` for a line without a reader name; null for a line that holds nothing but white
// space. A zero byte ends the line; white space at its end does not count. Input thread.
action_ptr parse_line(std::string_view line);
