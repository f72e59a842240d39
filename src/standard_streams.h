// The process's standard input and standard output as plain byte streams.
//
// They stand on the system's descriptors, since a host may leave its end of a pipe in non-blocking
// mode, which the agent then shares: the language's own streams would take "nothing there yet" for
// a failure and lose the line. Reading and writing wait instead, without polling, and go on after
// interrupted calls.
#pragma once

#include <cstddef>

// Outcome of one `read_input`.
enum class input_status { data, end, failed };

// Fills the places of standard streams that the host left closed, so that no file that the reader
// library opens can come to stand there. Reading and writing them fails as before. Call it before
// anything else that may open one.
void occupy_closed_streams();

// Reads what standard input has, at most `size` bytes, and waits until there is something. Sets
// `*length` to the number of bytes read, 0 unless the outcome is `data`. Input thread only.
input_status read_input(char* buffer, std::size_t size, std::size_t* length);

// Writes all `size` bytes to standard output, waiting for the host to read when it is behind. Once
// a write has failed, this call and all later ones drop their bytes. Writer thread only.
void write_output(const char* bytes, std::size_t size);
