// Occupancy bitmaps and the search record kept beside each of them.
//
// Bit i of a bitmap is bit i % 8 of byte i / 8; 0 is free, 1 in use. Finders load 64-bit words
// at any byte offset and read past the current position, so every bitmap is followed by
// readable zero bytes (its owner states how many).
#pragma once

#include <cstdint>

namespace tarnheap {

// Length classes of live runs: 1 .. 63 bits (tier 0), 8j bits as 63 + j (tier 1),
// 64j bits as 126 + j (tier 2), 512j bits as 189 + j (tier 3).
inline constexpr unsigned RUN_CLASS_COUNT = 253;

struct run_search_state {
    uint32_t cursor;                       // lowest bit that may be free
    uint32_t high_water;                   // one past the highest claimed run
    uint32_t peak_high_water;              // highest mark seen when a release lowered it
    uint32_t run_counts[RUN_CLASS_COUNT];  // live runs of class c at run_counts[c - 1]
};
static_assert(sizeof(run_search_state) == 256 * sizeof(uint32_t));

inline uint32_t& run_count(run_search_state& state, unsigned length_class) {
    return state.run_counts[length_class - 1];
}

// Claims the first fitting run of the slot's length below `limit` bits, sets its bits (not at
// block level), counts it and raises `high_water`; returns its first bit or -1, changing
// nothing on failure.
using run_finder = int64_t (*)(uint8_t* bitmap, uint64_t limit, run_search_state* state);

// The same for any length: `*length` is read in bits and, on success, overwritten with the
// length rounded up to whole 512-bit blocks.
using generic_run_finder = int64_t (*)(uint8_t* bitmap, uint64_t limit, uint64_t* length,
                                       run_search_state* state);

}  // namespace tarnheap
