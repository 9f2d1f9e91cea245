// What the checked build does as the heap hands a block out. As a block leaves the free blocks,
// before calloc clears it, memory that held the release fill must still hold it (the zeroed
// region's blocks must be zero); once an entry point has the block, the bytes asked for are
// recorded and the rest of the block is guarded. The heap's paths call these behind
// `if constexpr (CHECKED)`; checked builds alone define them.
#pragma once

#include <cstdint>

#include "bucket/group_descriptor.h"

namespace tarnheap {

void check_small_hand_out(uint64_t block);
void check_unit_hand_out(const bucket_group_view& group, uint64_t block);
// The run of `groups` groups from `group` holds a large block at `block`.
void check_large_hand_out(uint32_t group, uint64_t groups, uint64_t block);
void check_zeroed_hand_out(uint64_t block, uint32_t slots);

// An entry point hands `block` (null, or a block of the heap or of the C runtime) to the program
// for `requested` bytes.
void record_hand_out(void* block, uint64_t requested);

// The program asked for the usable size of a block of the heap: it may use all of it from now on.
void widen_to_usable_size(uint64_t address);

// Reserves the shadow and readies the messages' traces; the heap's region is reserved. Stops
// the program if the shadow cannot be had.
void start_checks();

}  // namespace tarnheap
