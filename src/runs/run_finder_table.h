// The table of run finders, one slot per run length, and the operations shared by all finders.
#pragma once

#include <cstdint>

#include "runs/run_length_classes.h"
#include "runs/run_search_state.h"

namespace tarnheap {

// Slot s < 256 serves runs of (s % 64) * 8^(s / 64) bits; slot 256 serves 32768 bits and slot
// 257 is the generic finder. Slots 64t + j for j < 8 alias the member of the tier below, so a
// slot computed by any tier's formula gives the same run.
inline constexpr unsigned RUN_FINDER_SLOTS = 258;
inline constexpr unsigned GENERIC_SLOT = 257;

union run_finder_slot {
    run_finder fixed;
    generic_run_finder generic;
};

// Fills all 258 slots; no other effect.
void build_run_finder_table(run_finder_slot* table);

// The slot 0 and 1 member: claims the lowest clear bit at or above `cursor`.
int64_t one_bit_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state);

// Where a search for `length` bits begins: max(cursor, bits held by live shorter runs).
uint64_t search_start(const run_search_state* state, uint32_t length);

// Gives a claimed run of `length` bits at `first` back: clears its bits, uncounts it and lowers
// the cursor and, by whole words, the high-water mark.
void release_run(uint8_t* bitmap, run_search_state* state, uint64_t first, uint64_t length);

// release_run on the group bitmap and its search state, for a run of `groups` groups.
void release_group_run(uint64_t first_group, uint64_t groups);

// The member of tier t (0: bits, 1: bytes, 2: words, 3: 512-bit blocks) for runs of
// j * 8^t bits, j = 2 .. 63 at tier 0, 8 .. 63 at tiers 1 and 2, 8 .. 64 at tier 3.
run_finder tier_member(unsigned tier, unsigned j);
int64_t generic_block_finder(uint8_t* bitmap, uint64_t limit, uint64_t* length,
                             run_search_state* state);

// The routine behind the tier-3 members: claims the first run of k free 512-bit blocks
// (`length` = 512k bits) by zeroing its bytes, leaving its bits clear.
int64_t block_run_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state, int32_t length,
                         uint32_t k);

}  // namespace tarnheap
