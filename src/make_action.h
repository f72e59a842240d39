// The command grammar: from the pieces of a command line to its work item.
#pragma once

#include <string_view>

#include "card_reader_state.h"

// Builds the one work item that a line asks for: the command's own, aimed at `reader`, or a
// `print_error` that says what is wrong with the line. Never null. What it builds owns copies of
// all it keeps. Whether that reader is attached, and whether a configuration setting exists, is
// found out only when the item runs. Input thread.
action_ptr make_action(std::string_view reader, std::string_view command,
                       std::string_view arguments);
