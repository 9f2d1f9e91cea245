// The search order every finder but the 1-bit one keeps, around a tier's own scan.
#pragma once

#include <cstdint>
#include <utility>

#include "runs/run_length_classes.h"
#include "runs/run_search_state.h"
#include "state/compiler.h"

namespace tarnheap {

// What a bounded scan answers when no run begins before its bound.
inline constexpr int64_t NO_RUN = -1;

// Bits held by live runs of every class shorter than LENGTH_CLASS. Shorter runs pack low, so no
// longer run is expected below this. Unrolled for the member's class; the class numbers no tier
// uses weigh nothing and drop out.
template <size_t... C>
TARNHEAP_HOT uint64_t weighted_run_bits(const run_search_state& state, std::index_sequence<C...>) {
    return (uint64_t{0} + ... + (uint64_t{state.run_counts[C]} * run_class_length(C + 1)));
}

template <unsigned LENGTH_CLASS>
TARNHEAP_HOT uint64_t shorter_run_bits(const run_search_state& state) {
    return weighted_run_bits(state, std::make_index_sequence<LENGTH_CLASS - 1>{});
}

// First fit from `start` with `scan` (a record with find(from bit) -> first bit or NO_RUN, and
// claim(first bit)). A run that ends at or below the high-water mark is a hole and is taken at
// once. One that would raise the mark is taken only by a pass that began at the cursor, so a
// pass that began higher is repeated once from the cursor to look for a hole first; there is
// no wrap-around. On failure nothing changes.
template <typename Scan>
TARNHEAP_HOT int64_t claim_first_fit(run_search_state* state, uint64_t start, uint64_t length,
                                     unsigned length_class, uint64_t limit, const Scan& scan) {
    const uint64_t cursor = state->cursor;
    const uint64_t high_water = state->high_water;
    uint64_t from = start;
    int64_t first;
    for (;;) {
        first = scan.find(from);
        uint64_t end = static_cast<uint64_t>(first) + length;
        if (first != NO_RUN && end <= high_water) break;
        if (from == cursor) {
            if (first != NO_RUN && end <= limit) break;
            return -1;
        }
        from = cursor;
    }
    scan.claim(static_cast<uint64_t>(first));
    if (length_class != 0) ++run_count(*state, length_class);
    uint64_t end = static_cast<uint64_t>(first) + length;
    if (end > high_water) state->high_water = static_cast<uint32_t>(end);
    return first;
}

}  // namespace tarnheap
