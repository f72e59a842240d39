// The relay of the reader library's own diagnostic text.
#pragma once

// The library's marker function: turns `length` bytes at `text`, whatever they are, into one "Log:
// " line. Nothing for a length of 0 or less. Any thread that does not hold the output channel's
// lock.
void log_relay(char* text, int length);
