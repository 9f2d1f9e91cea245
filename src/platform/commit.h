#pragma once

#include <cstdint>

namespace tarnheap {

// Commits `size` bytes at `address`, which lies inside a reservation. A failure is reported on
// the C runtime's standard error stream and otherwise ignored: the caller goes on as if the
// pages were committed and never retries.
void commit_range(uint64_t address, uint64_t size);

}  // namespace tarnheap
