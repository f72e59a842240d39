// The process's standard input and standard output as plain byte streams.
//
// They stand on the system's descriptors, since an application may leave its end of a pipe in
// non-blocking mode, which the agent then shares: the language's own streams would take "nothing
// there yet" for a failure and lose the line. Reading and writing wait instead, without polling,
// and go on after interrupted calls.
#pragma once

#include <cstddef>

// Outcome of one `read_input`.
enum class input_status { data, end, failed };

// Makes the process's streams safe from the reader library. Call it first of all, once.
//
// A stream that the application left closed gets /dev/null, so that no file that the library opens
// takes its number: standard input is at its end, and writing fails as before. Standard output
// moves to a descriptor that only `write_output` knows and that no child process inherits, and
// standard error takes its number, so that anything the library prints goes there. (If a thousand
// files are open already, or none can be opened, standard output stays where it is.)
void arrange_streams();

// Reads what standard input has, at most `size` bytes, and waits until there is something. Sets
// `*length` to the number of bytes read, 0 unless the outcome is `data`. Input thread only.
input_status read_input(char* buffer, std::size_t size, std::size_t* length);

// Writes all `size` bytes to the application, waiting for it to read if it is behind. Once
// a write has failed, this call and all later ones drop their bytes. Writer thread only.
void write_output(const char* bytes, std::size_t size);
