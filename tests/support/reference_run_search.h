// A plain model of the run search, written for clarity rather than speed: every candidate one
// unit apart is tried bit by bit. Tests compare the finders with it; benchmarks time them
// against it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "runs/run_search_state.h"

namespace tarnheap::testing {

// What a slot's member does, derived from its run length alone.
struct reference_member {
    uint64_t length;          // bits
    uint64_t unit;            // a run's first bit is a multiple of this
    unsigned length_class;    // run_counts entry it counts; 0: none
    uint64_t latest_in_byte;  // highest bit within its byte at which a run may start
    bool one_bit;             // the 1-bit finder: no start estimate, no preference, no rescan
    bool bounded;             // stops at the limit rather than in the zero tail
    bool block_level;         // claims by zeroing bytes and sets no bits
};

inline reference_member reference_member_for_length(uint64_t length) {
    if (length <= 1) return {1, 1, 1, 7, true, false, false};
    // Members for 58 to 63 bits pass over runs that start late in their byte.
    if (length <= 63)
        return {length, 1,    unsigned(length), std::min<uint64_t>(7, 64 - length), false,
                false,  false};
    if (length <= 504) return {length, 8, unsigned(63 + length / 8), 7, false, false, false};
    if (length <= 4032)
        return {length, 64, unsigned(126 + length / 64), 7, false, length >= 768, false};
    return {length, 512, unsigned(189 + length / 512), 7, false, true, true};
}

// Slot s < 256 serves (s % 64) * 8^(s / 64) bits, slot 256 serves 32768.
inline reference_member reference_member_for_slot(unsigned slot) {
    uint64_t length = slot == 256 ? 32768 : (slot % 64) << (3 * (slot / 64));
    return reference_member_for_length(length);
}

// The generic finder: whole blocks, counted nowhere.
inline reference_member reference_generic_member(uint64_t length) {
    uint64_t blocks = std::max<uint64_t>(1, (length + 511) / 512);
    return {512 * blocks, 512, 0, 7, false, true, true};
}

inline bool reference_bit(const uint8_t* bitmap, uint64_t bit) {
    return (bitmap[bit / 8] >> (bit % 8)) & 1;
}

// Bits held by live runs of every class shorter than `length`, class by class.
inline uint64_t reference_shorter_bits(const run_search_state& state, uint64_t length) {
    uint64_t bits = 0;
    for (uint64_t k = 1; k <= 63; ++k)
        if (k < length) bits += uint64_t{state.run_counts[k - 1]} * k;
    for (uint64_t j = 8; j <= 63; ++j) {
        if (8 * j < length) bits += uint64_t{state.run_counts[63 + j - 1]} * 8 * j;
        if (64 * j < length) bits += uint64_t{state.run_counts[126 + j - 1]} * 64 * j;
    }
    for (uint64_t j = 8; j <= 64; ++j)
        if (512 * j < length) bits += uint64_t{state.run_counts[189 + j - 1]} * 512 * j;
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
        while (bit < first + member.length && !reference_bit(bitmap, bit)) ++bit;
        if (bit == first + member.length) return int64_t(first);
    }
    return -1;
}

inline void reference_claim(uint8_t* bitmap, const reference_member& member, uint64_t first) {
    if (member.block_level) {
        std::memset(bitmap + first / 8, 0, member.length / 8);
        return;
    }
    for (uint64_t bit = first; bit < first + member.length; ++bit)
        bitmap[bit / 8] |= uint8_t(1u << (bit % 8));
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
    reference_claim(bitmap, member, uint64_t(first));
    if (member.length_class != 0) ++state.run_counts[member.length_class - 1];
    state.high_water = std::max<uint32_t>(state.high_water, uint32_t(first + member.length));
    return first;
}

}  // namespace tarnheap::testing
