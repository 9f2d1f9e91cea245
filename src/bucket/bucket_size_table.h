// The unit sizes of the 67 bucket classes.
#pragma once

#include <cstdint>

#include "state/layout.h"

namespace tarnheap {

// Classes 1 to 42 step by 64 bytes, so that requests of 257 to 2688 bytes find their class by a
// shift; class 0 repeats 64. Above 2688 the sizes grow by roughly a tenth, each chosen so that
// a 70656-byte group wastes little.
struct bucket_sizes {
    uint32_t bytes[BUCKET_CLASS_COUNT];
};

inline constexpr bucket_sizes BUCKET_SIZE_TABLE = [] {
    bucket_sizes table{};
    constexpr uint32_t upper[] = {2816, 2944, 3072,  3200,  3328,  3520,  3712,  3904,
                                  4096, 4416, 4672,  4992,  5376,  5888,  6400,  7040,
                                  7808, 8832, 10048, 11776, 14080, 17664, 23552, 35328};
    table.bytes[0] = 64;
    for (unsigned c = 1; c <= 42; ++c) table.bytes[c] = 64 * c;
    for (unsigned c = 43; c < BUCKET_CLASS_COUNT; ++c) table.bytes[c] = upper[c - 43];
    return table;
}();

inline constexpr unsigned BUCKET_LINEAR_CLASSES = 43;
static_assert(BUCKET_SIZE_TABLE.bytes[BUCKET_LINEAR_CLASSES - 1] == BUCKET_LINEAR_MAX);
static_assert(BUCKET_SIZE_TABLE.bytes[BUCKET_CLASS_COUNT - 1] == BUCKET_MAX);
static_assert([] {
    for (unsigned c = 2; c < BUCKET_CLASS_COUNT; ++c)
        if (BUCKET_SIZE_TABLE.bytes[c] <= BUCKET_SIZE_TABLE.bytes[c - 1]) return false;
    return true;
}());
// Unit sizes fit the 16-bit unit_size of a descriptor, and every class fits at least two units
// in a group, within the 1152 bits of a unit bitmap.
static_assert(BUCKET_MAX < 0x10000 && GROUP_BYTES / BUCKET_MAX == 2);
static_assert(GROUP_BYTES / 64 <= UNIT_BITMAP_BITS);

}  // namespace tarnheap
