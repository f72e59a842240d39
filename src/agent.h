// The agent as a whole.
#pragma once

// Starts the input thread and the writer thread, runs the work loop on the calling thread until the
// end of standard input, and joins them. Returns 0, the exit status. Call it once, from `main`.
// Throws std::system_error ("thread constructor failed") when a thread can't be started.
int run_agent();
