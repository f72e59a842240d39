// The input thread.
#pragma once

// Turns every line of standard input into one work item and hands it to the work loop; at the end
// of input hands in `quit` and returns.
void input_loop();
