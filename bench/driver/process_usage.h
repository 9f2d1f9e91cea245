// What the operating system counts for this process: its processor time and its peak resident
// memory.
#pragma once

#include <cstdint>

namespace workload {

// User and system time of the process so far. On a machine shared with other work it varies
// far less than elapsed time, which includes the time spent waiting for a processor.
double processor_seconds();

uint64_t peak_resident_kib();

}  // namespace workload
