// The replay's live blocks as sorted address ranges: what the heap's audit compares its free
// ranges with, and what tells a live large run from the stale record of a released one.
#pragma once

#include <cstdint>

#include "replay_step.h"

namespace trace {

struct live_range {
    uint64_t first;
    uint64_t end;
};

struct live_ranges {
    live_range* ranges;  // sorted by first address, disjoint while the heap is sound
    uint64_t count;
};

// Gathers the blocks of `identities` table entries that hold at least one byte; false when no
// memory is left for the table.
bool collect_live_ranges(const replay_block* blocks, uint64_t identities, live_ranges& live);

// Whether a live block overlaps [first, end); `context` is the live_ranges (the audit's
// callback).
bool overlaps_live(void* context, uint64_t first, uint64_t end);

// Whether a live block starts in [first, end).
bool starts_within(const live_ranges& live, uint64_t first, uint64_t end);

}  // namespace trace
