// A plain model of the run search, written for clarity rather than speed: every candidate one
// unit apart is tried bit by bit. Tests compare the finders with it; benchmarks time them
// against it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "runs/run_search_state.h"

namespace tarnheap::testing {

// What a slot's member does, derived from its run length alone.
struct reference_member {
    uint64_t length;              // bits
    uint64_t unit;                // a run's first bit is a multiple of this
    unsigned length_class;        // run_counts entry it counts; 0: none
    uint64_t latest_in_byte = 7;  // highest bit within its byte at which a run may start
    bool one_bit = false;         // the 1-bit finder: no start estimate, no preference, no rescan
    bool bounded = false;         // stops at the limit rather than in the zero tail
    bool block_level = false;     // claims by zeroing bytes and sets no bits
};

// The four tiers: runs of j units of `unit` bits count as class class_base + j.
struct reference_tier {
    unsigned class_base;
    uint64_t unit, shortest, longest;
};
inline constexpr reference_tier REFERENCE_TIERS[] = {
    {0, 1, 1, 63}, {63, 8, 64, 504}, {126, 64, 512, 4032}, {189, 512, 4096, 32768}};

inline reference_member reference_member_for_length(uint64_t length) {
    if (length <= 1) return {1, 1, 1, 7, true};
    const reference_tier& tier =
        *std::find_if(std::begin(REFERENCE_TIERS), std::end(REFERENCE_TIERS),
                      [length](const reference_tier& t) { return length <= t.longest; });
    reference_member member{length, tier.unit, unsigned(tier.class_base + length / tier.unit)};
    // Members for 58 to 63 bits pass over runs that start late in their byte.
    if (tier.unit == 1) member.latest_in_byte = std::min<uint64_t>(7, 64 - length);
    member.bounded = length >= 768;
    member.block_level = tier.unit == 512;
    return member;
}

// Slot s < 256 serves (s % 64) * 8^(s / 64) bits, slot 256 serves 32768.
inline reference_member reference_member_for_slot(unsigned slot) {
    return reference_member_for_length(slot == 256 ? 32768 : (slot % 64) << (3 * (slot / 64)));
}

// The generic finder: whole blocks, counted nowhere.
inline reference_member reference_generic_member(uint64_t length) {
    return {512 * std::max<uint64_t>(1, (length + 511) / 512), 512, 0, 7, false, true, true};
}

// Bits held by live runs of every class shorter than `length`.
inline uint64_t reference_shorter_bits(const run_search_state& state, uint64_t length) {
    uint64_t bits = 0;
    for (const reference_tier& tier : REFERENCE_TIERS)
        for (uint64_t run = tier.shortest; run <= tier.longest && run < length; run += tier.unit)
            bits += uint64_t{state.run_counts[tier.class_base + run / tier.unit - 1]} * run;
    return bits;
}

// The lowest fitting run from the byte (or coarser unit) that holds `from`; -1 when none lies
// within `bitmap_bits`, or, for bounded members, within the limit rounded up to the unit.
inline int64_t reference_scan(const uint8_t* bitmap, uint64_t bitmap_bits, uint64_t limit,
                              const reference_member& member, uint64_t from) {
    uint64_t align = std::max<uint64_t>(member.unit, 8);
    uint64_t end_bound =
        member.bounded ? (limit + member.unit - 1) / member.unit * member.unit : bitmap_bits;
    for (uint64_t first = from / align * align; first + member.length <= end_bound;
         first += member.unit) {
        if (first % 8 > member.latest_in_byte) continue;
        uint64_t bit = first;
        while (bit < first + member.length && !((bitmap[bit / 8] >> (bit % 8)) & 1)) ++bit;
        if (bit == first + member.length) return int64_t(first);
    }
    return -1;
}

// The whole contract: start, high-water preference, one rescan from the cursor, the claim and
// its bookkeeping. `bitmap_bits` is the bitmap with its zero tail.
inline int64_t reference_find(uint8_t* bitmap, uint64_t bitmap_bits, uint64_t limit,
                              run_search_state& state, const reference_member& member) {
    int64_t first;
    if (member.one_bit) {
        first = reference_scan(bitmap, bitmap_bits, limit, member, state.cursor);
        if (first < 0 || uint64_t(first) >= limit) return -1;
        state.cursor = uint32_t(first);
    } else {
        uint64_t start =
            std::max<uint64_t>(state.cursor, reference_shorter_bits(state, member.length));
        first = reference_scan(bitmap, bitmap_bits, limit, member, start);
        bool in_hole = first >= 0 && first + member.length <= state.high_water;
        if (!in_hole && start != state.cursor) {
            first = reference_scan(bitmap, bitmap_bits, limit, member, state.cursor);
            in_hole = first >= 0 && first + member.length <= state.high_water;
        }
        if (!in_hole && (first < 0 || first + member.length > limit)) return -1;
    }
    if (member.block_level)
        std::memset(bitmap + first / 8, 0, member.length / 8);
    else
        for (uint64_t bit = uint64_t(first); bit < first + member.length; ++bit)
            bitmap[bit / 8] |= uint8_t(1u << (bit % 8));
    if (member.length_class != 0) ++state.run_counts[member.length_class - 1];
    state.high_water = std::max<uint32_t>(state.high_water, uint32_t(first + member.length));
    return first;
}

}  // namespace tarnheap::testing
