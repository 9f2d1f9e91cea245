// Offsets into runs of equal-sized pieces (small blocks, bucket units) become piece indices by a
// multiply and a shift instead of a division.
#pragma once

#include <cstdint>

namespace tarnheap {

// floor(2^32 / size), for sizes of 4 to 35328 bytes.
constexpr uint32_t reciprocal_of(uint32_t size) {
    return static_cast<uint32_t>((uint64_t{1} << 32) / size);
}

// The index of the piece starting at `offset`. Rounding up makes it exact at every piece start
// of the heap's sizes and spans (offset * remainder stays below 2^32).
constexpr uint64_t piece_index(uint64_t offset, uint32_t reciprocal) {
    return (offset * reciprocal + 0xFFFFFFFF) >> 32;
}

static_assert(piece_index(35328 * 2, reciprocal_of(35328)) == 2);
static_assert(piece_index(12 * 11184810, reciprocal_of(12)) == 11184810);

}  // namespace tarnheap
