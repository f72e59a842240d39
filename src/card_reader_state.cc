#include "card_reader_state.h"

#include <utility>

void card_reader_state::enqueue(action_ptr item) {
  bool was_empty = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    was_empty = actions.empty();
    actions.push(std::move(item));
  }
  // The loop waits only on a queue it has found empty, so only the first item must wake it.
  if (was_empty) cond.notify_one();
}
