// The run cache: freed runs of groups (emptied bucket groups and released large blocks) wait
// here, still claimed in the group bitmap, for reuse at exactly their length.
//
// Each run is on two lists through its descriptor's cached-run view: the list of its length
// (the cached_runs head of its run_length_table entry, most recent first, so reuse is last in
// first out) and one of two age lists (oldest first) that eviction works through. Evicting a
// run gives its groups back to the group bitmap; their memory stays committed.
#pragma once

#include <cstdint>

#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

// Runs of this many groups and more are on the long age list, which every trim empties.
inline constexpr uint64_t LONG_RUN_MIN = 1900;
// A trim leaves at most this many groups in short cached runs.
inline constexpr uint64_t CACHE_KEEP = 118;

// Caches the free run of `length` groups that starts with `run`, under run_length_table[entry].
void cache_put(group_descriptor_record& run, uint32_t length, unsigned entry);

// Takes `run` out of the cache for reuse; the caller then writes an in-use view over it.
TARNHEAP_HOT void cache_take(group_descriptor_record& run) {
    cached_run_view& view = run.cached;
    heap_state.cached_groups -= view.run_groups;
    // Only a list's head has no predecessor, and a run's length says which age list holds it.
    if (view.length_prev != nullptr)
        view.length_prev->cached.length_next = view.length_next;
    else
        *view.length_list = view.length_next;
    if (view.length_next != nullptr) view.length_next->cached.length_prev = view.length_prev;
    bool is_long = view.run_groups >= LONG_RUN_MIN;
    if (view.age_prev != nullptr)
        view.age_prev->cached.age_next = view.age_next;
    else
        (is_long ? heap_state.long_runs_first : heap_state.short_runs_first) = view.age_next;
    if (view.age_next != nullptr)
        view.age_next->cached.age_prev = view.age_prev;
    else
        (is_long ? heap_state.long_runs_last : heap_state.short_runs_last) = view.age_prev;
    // These lie under the in-use views' counts and base: a descriptor taken out reads as
    // neither a bucket group nor a live base until its new view is written.
    view.length_prev = nullptr;
    view.length_next = nullptr;
    view.age_prev = nullptr;
}

// Evicts every long run, then short runs oldest first down to CACHE_KEEP groups; when neither
// evicted anything, still the oldest short run, so that the cache keeps ageing.
void cache_trim();

// Evicts everything.
void cache_flush();

}  // namespace tarnheap
