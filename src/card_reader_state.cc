#include "card_reader_state.h"

void card_reader_state::enqueue(action_ptr item) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    actions.push(std::move(item));
  }
  cond.notify_one();
}
