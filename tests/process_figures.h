// What the system tells of a running process; 0 where it does not tell.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

long resident_kib(pid_t pid);
std::size_t open_descriptors(pid_t pid);
// How often any of its threads has gone to sleep so far.
std::uint64_t context_switches(pid_t pid);
