#include "input_loop.h"

#include "feedback.h"
#include "globals.h"
#include "line_reader.h"
#include "parse_line.h"

void input_loop() {
  card_reader_state& state = globals::card_state();
  line_reader input;
  while (!input.at_end()) {
    std::string_view line;
    if (!input.next(&line)) {
      state.enqueue(std::make_unique<print_error>("Input line was too long to process"));
    } else if (action_ptr item = parse_line(line)) {
      state.enqueue(std::move(item));
    }
  }
  state.enqueue(std::make_unique<quit>());
}
