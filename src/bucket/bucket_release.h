// Giving blocks of the bucket area and of the zeroed region back.
#pragma once

#include <cstdint>

#include "state/heap_state.h"

namespace tarnheap {

// Releases the unit at `address` of bucket group `group`: re-links a detached group, and hands
// an emptied one to the run cache as a free run of one group.
void release_unit(uint32_t group, uint64_t address);

// Releases the large block whose run starts at `group`: to the run cache, or for runs of more
// than 32768 groups straight back to the group bitmap.
void release_large_run(uint32_t group);

// Releases the zeroed-region block at `address`, `offset` bytes into the region: zeroes it
// again and frees its slots.
void release_zeroed_block(uint64_t address, uint64_t offset);

// The region holds 1024 slots of 64 KiB.
inline constexpr uint64_t ZEROED_REGION_BYTES = 0x4000000;
inline constexpr unsigned ZEROED_SLOT_SHIFT = 16;

// Whether `address` lies in the zeroed region, once it exists; its offset there goes to `offset`.
inline bool in_zeroed_region(uint64_t address, uint64_t* offset) {
    *offset = address - heap_state.zeroed_region_base;
    return heap_state.zeroed_region_base != 0 && *offset < ZEROED_REGION_BYTES;
}

}  // namespace tarnheap
