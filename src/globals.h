// The process's three shared objects. They are built before `main` runs, in the order below, and
// live until the process exits; nothing else in the agent is global but where
// its output goes (see standard_streams.h).
#pragma once

#include "card_reader_state.h"
#include "output.h"
#include "pc_prox_api.h"

namespace globals {

// Any thread may call push_line and request_stop; the writer thread runs its loop.
output_str_state& out_state();

// Any thread may call enqueue; everything else is the main thread's.
card_reader_state& card_state();

// Main thread only.
const pc_prox::pc_prox_api& api();

}  // namespace globals
