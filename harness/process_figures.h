// What the system tells of a running process and its threads. All is 0 where it does not tell,
// which is anywhere but on Linux.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Pages that only this process touched count whole, shared ones too.
std::uint64_t resident_kib(pid_t pid);

std::size_t open_descriptors(pid_t pid);

// How often any of its threads has gone to sleep so far; and how often one was made to give way.
std::uint64_t voluntary_switches(pid_t pid);
std::uint64_t involuntary_switches(pid_t pid);

// Every thread of it sleeps.
bool is_asleep(pid_t pid);
