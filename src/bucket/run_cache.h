// The run cache: freed runs of groups (emptied bucket groups and released large blocks) wait
// here, still claimed in the group bitmap, for reuse at exactly their length.
//
// Each run is on two lists through its descriptor's cached-run view: the list of its length
// (the cached_runs head of its run_length_table entry, most recent first, so reuse is last in
// first out) and one of two age lists (oldest first) that eviction works through. Evicting a
// run gives its groups back to the group bitmap; their memory stays committed.
#pragma once

#include <cstdint>

#include "state/heap_state.h"

namespace tarnheap {

// Runs of this many groups and more are on the long age list, which every trim empties.
inline constexpr uint64_t LONG_RUN_MIN = 1900;
// A trim leaves at most this many groups in short cached runs.
inline constexpr uint64_t CACHE_KEEP = 118;

// Caches the free run of `length` groups that starts with `run`, under run_length_table[entry].
void cache_put(group_descriptor_record& run, uint32_t length, unsigned entry);

// Takes `run` out of the cache for reuse; the caller then writes an in-use view over it.
void cache_take(group_descriptor_record& run);

// Evicts every long run, then short runs oldest first down to CACHE_KEEP groups; when neither
// evicted anything, still the oldest short run, so that the cache keeps ageing.
void cache_trim();

// Evicts everything.
void cache_flush();

}  // namespace tarnheap
