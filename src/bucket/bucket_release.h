// Giving blocks of the bucket area and of the zeroed region back.
#pragma once

#include <cstdint>

#include "bucket/class_list.h"
#include "bucket/run_cache.h"
#include "bucket/run_length.h"
#include "runs/run_finder_table.h"
#include "state/compiler.h"
#include "state/heap_state.h"
#include "state/reciprocal.h"

namespace tarnheap {

// Takes an emptied group off its class's list and hands it to the run cache as a free run of
// one group.
void retire_group(uint32_t group);

// Releases the unit at `offset` bytes into bucket group `group`. Most releases only clear a bit
// and count it; a detached group goes back on its class's list, an emptied one to the run cache.
TARNHEAP_HOT void release_unit(uint32_t group, uint64_t offset) {
    bucket_group_view& view = heap_state.group_descriptor[group].bucket;
    uint64_t unit = piece_index(offset, view.size_reciprocal);
    view.unit_bitmap[unit / 64] &= ~(uint64_t{1} << (unit % 64));
    uint16_t free_units = ++view.free_units;
    if (TARNHEAP_UNLIKELY(free_units == view.unit_count)) return retire_group(group);
    reattach_if_detached(group);
}

// Releases the large block whose run starts at `group`: to the run cache, or for runs of more
// than 32768 groups straight back to the group bitmap.
TARNHEAP_HOT void release_large_run(uint32_t group) {
    group_descriptor_record& run = heap_state.group_descriptor[group];
    uint32_t groups = run.large.run_groups;
    if (groups > LONGEST_TABLE_RUN) return release_group_run(group, groups);
    cache_put(run, groups, run_length_for(groups).entry);
}

// Releases the zeroed-region block at `address`, `offset` bytes into the region: zeroes it
// again and frees its slots.
void release_zeroed_block(uint64_t address, uint64_t offset);

// The region holds 1024 slots of 64 KiB.
inline constexpr uint64_t ZEROED_REGION_BYTES = 0x4000000;
inline constexpr unsigned ZEROED_SLOT_SHIFT = 16;
inline constexpr uint64_t ZEROED_SLOT_BYTES = uint64_t{1} << ZEROED_SLOT_SHIFT;

// Whether `address` lies in the zeroed region, once it exists; its offset there goes to `offset`.
inline bool in_zeroed_region(uint64_t address, uint64_t* offset) {
    *offset = address - heap_state.zeroed_region_base;
    return heap_state.zeroed_region_base != 0 && *offset < ZEROED_REGION_BYTES;
}

}  // namespace tarnheap
