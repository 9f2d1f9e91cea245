#include "bucket/run_cache.h"

#include "runs/run_finder_table.h"

namespace tarnheap {
namespace {

void append_by_age(group_descriptor_record& run, group_descriptor_record*& first,
                   group_descriptor_record*& last) {
    run.cached.age_prev = last;
    if (last != nullptr)
        last->cached.age_next = &run;
    else
        first = &run;
    last = &run;
}

void evict(group_descriptor_record& run) {
    release_group_run(run.cached.first_group, run.cached.run_groups);
    cache_take(run);
}

void evict_all(group_descriptor_record* const& first) {
    while (first != nullptr) evict(*first);
}

}  // namespace

void cache_put(group_descriptor_record& run, uint32_t length, unsigned entry) {
    heap_state.cached_groups += length;
    cached_run_view& view = run.cached;
    group_descriptor_record*& length_head = heap_state.run_length_table[entry].cached_runs;
    view.run_groups = length;
    view.first_group = static_cast<uint32_t>(&run - heap_state.group_descriptor);
    view.length_list = &length_head;
    view.length_prev = nullptr;
    view.length_next = length_head;
    if (length_head != nullptr) length_head->cached.length_prev = &run;
    length_head = &run;
    view.age_next = nullptr;
    if (length < LONG_RUN_MIN)
        append_by_age(run, heap_state.short_runs_first, heap_state.short_runs_last);
    else
        append_by_age(run, heap_state.long_runs_first, heap_state.long_runs_last);
}

void cache_trim() {
    bool long_list_was_empty = heap_state.long_runs_first == nullptr;
    evict_all(heap_state.long_runs_first);
    if (heap_state.cached_groups > CACHE_KEEP) {
        while (heap_state.cached_groups > CACHE_KEEP) evict(*heap_state.short_runs_first);
    } else if (long_list_was_empty && heap_state.short_runs_first != nullptr) {
        evict(*heap_state.short_runs_first);
    }
}

void cache_flush() {
    evict_all(heap_state.long_runs_first);
    evict_all(heap_state.short_runs_first);
}

}  // namespace tarnheap
