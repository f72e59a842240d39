// The reader cycle: the search for a reader and the poll for cards, which lead to each other.
#pragma once

#include <string_view>

#include "card_reader_state.h"

// Looks for a reader, connects it under a fresh name and announces that name, or announces that
// the reader has gone. Always succeeds and always sets `last_scan`. After a connection the first
// card poll follows at once, unless the agent is to end: scans that lead to each other end there.
struct scan_for_reader : action {
  scan_for_reader() : action(global_reader, true) {}
  action_result execute_impl() override;
};

// Asks the reader `target` for its card and reports the card's ID, at every poll anew. A fetch that
// fails means that the reader has gone: a search follows at once.
struct scan_for_card : action {
  explicit scan_for_card(std::string_view target) : action(target, true) {}

  // Fails when the fetch did; otherwise the message is the card's text, empty without a card.
  action_result execute_impl() override;
};
