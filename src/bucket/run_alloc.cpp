// run_alloc: a large block in a run of whole groups. Runs of up to 32768 groups are rounded to a
// length with its own finder and cache list and reused from the cache at exactly that length;
// longer ones go through the generic finder and never meet the cache.
#include "bucket/bucket_alloc.h"
#include "bucket/commit_groups.h"
#include "bucket/hand_out.h"
#include "bucket/run_cache.h"
#include "bucket/run_length.h"
#include "checked/hand_out_checks.h"
#include "state/build_config.h"
#include "state/random.h"

namespace tarnheap {
namespace {

// Large blocks start at one of up to 1104 positions 64 bytes apart, all inside the first group,
// where release looks for the descriptor.
constexpr uint64_t OFFSET_STEP = 64;
constexpr uint64_t OFFSET_POSITIONS = 1104;
static_assert(OFFSET_POSITIONS * OFFSET_STEP == GROUP_BYTES);
// The slack a block needs in its run before it is offset at all.
constexpr uint64_t OFFSET_MIN_SLACK = 128;

int64_t find_run(run_finder finder) {
    return finder(heap_state.group_bitmap, GROUP_COUNT, &heap_state.group_search_state);
}

// The first group of a fresh run of `*groups` groups; the finder may round the length up.
int64_t claim_long_run(uint64_t* groups) {
    if (heap_state.init_state != INIT_READY) return -1;
    generic_run_finder finder = heap_state.generic_block_finder;
    int64_t first =
        finder(heap_state.group_bitmap, GROUP_COUNT, groups, &heap_state.group_search_state);
    if (first >= 0 || heap_state.cached_groups < *groups) return first;
    cache_flush();
    return finder(heap_state.group_bitmap, GROUP_COUNT, groups, &heap_state.group_search_state);
}

// A fresh run of the entry's length, claimed after the cache has been trimmed, or after it was
// flushed when that can help.
int64_t claim_fresh_run(run_length_choice length) {
    run_length_entry& entry = heap_state.run_length_table[length.entry];
    if (heap_state.init_state != INIT_READY) return -1;
    cache_trim();
    int64_t first = find_run(entry.finder);
    if (first >= 0 || heap_state.cached_groups < length.groups) return first;
    cache_flush();
    return find_run(entry.finder);
}

uint64_t block_start(uint64_t base, uint64_t size, uint64_t groups, alloc_mode mode) {
    uint64_t span = groups * GROUP_BYTES;
    // Resize copies into the block: it gets the run's first byte.
    if (mode == MODE_RESIZE || size + OFFSET_MIN_SLACK > span) return base;
    uint64_t positions = (span - size) / OFFSET_STEP;
    if (positions > OFFSET_POSITIONS) positions = OFFSET_POSITIONS;
    // Both fit 32 bits, and a 32-bit division is the cheaper one.
    return base + OFFSET_STEP * (draw_random() % static_cast<uint32_t>(positions));
}

// Hands out a block in the claimed run of `groups` groups from `group`, its memory committed,
// and records the run. The mode's work on the block comes last, so that the zero-fill of calloc
// is a tail call.
TARNHEAP_HOT void* place_large_block(uint32_t group, uint64_t groups, uint64_t size,
                                     alloc_mode mode) {
    uint64_t base = heap_state.bucket_area_base + group * GROUP_BYTES;
    uint64_t block = block_start(base, size, groups, mode);
    if constexpr (CHECKED) check_large_hand_out(group, groups, block);
    large_run_view& run = heap_state.group_descriptor[group].large;
    run.run_groups = static_cast<uint32_t>(groups);
    run.group_base = base;
    // A zero unit size is what marks the descriptor as a large run to release and resize.
    run.unit_size = 0;
    return hand_out(block, size, mode);
}

// The rare ways to a run: a fresh claim, a run longer than any table length, a first commit.
TARNHEAP_OUT_OF_LINE void* run_alloc_rare(uint64_t size, alloc_mode mode, run_length_choice length,
                                          int64_t first) {
    if (first < 0)
        first = length.groups > LONGEST_TABLE_RUN ? claim_long_run(&length.groups)
                                                  : claim_fresh_run(length);
    if (first < 0) return nullptr;
    auto group = static_cast<uint32_t>(first);
    commit_groups(group, static_cast<uint32_t>(length.groups));
    return place_large_block(group, length.groups, size, mode);
}

}  // namespace

// The common case, the most recently cached run of the length with its memory committed, makes
// no call but the zero-fill of calloc.
void* run_alloc(uint64_t size, alloc_mode mode) {
    run_length_choice length = run_length_for((size + GROUP_BYTES - 1) / GROUP_BYTES);
    group_descriptor_record* cached = heap_state.run_length_table[length.entry].cached_runs;
    // Entry 0 stands for the lengths beyond the table; its list is never used.
    if (length.groups > LONGEST_TABLE_RUN || cached == nullptr)
        return run_alloc_rare(size, mode, length, -1);
    uint32_t group = cached->cached.first_group;
    cache_take(*cached);
    if (!groups_committed(group, static_cast<uint32_t>(length.groups)))
        return run_alloc_rare(size, mode, length, group);
    return place_large_block(group, length.groups, size, mode);
}

}  // namespace tarnheap
