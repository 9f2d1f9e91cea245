// The heap's sizes, layout and class rules written out as literals, and where a block lies as
// read from heap_state by those rules. Tests compare the heap with these, never with its own
// tables, so that a wrong table or constant in the library fails them. Declared in the tests'
// namespace, they stand in for the library's names of the same figures.
#pragma once

#include <cstdint>

#include "state/heap_state.h"

namespace tarnheap::testing {

inline constexpr uint64_t REGION_HINT = 0x7f0000000000, REGION_BYTES = 0x200000000;
inline constexpr uint64_t OFFSET_MASK = 0x1FFFFFFFF, SEGMENT_BYTES = 0x8000000;
inline constexpr uint64_t BUCKET_AREA_OFFSET = 0xE0000000, BUCKET_AREA_BYTES = 0x11FFF9400;
inline constexpr uint64_t GROUP_BYTES = 70656, GROUP_COUNT = 68385;
inline constexpr uint64_t SMALL_MAX = 256, BUCKET_MAX = 35328, LARGE_MAX = 0x120000000;
inline constexpr uint64_t ZEROED_HINT = 0x7ff000000000, ZEROED_BYTES = 0x4000000;
inline constexpr uint64_t SLOT_BYTES = 65536, ZEROED_MIN = 716800, ZEROED_MAX = 1048576;
inline constexpr uint8_t NOT_STARTED = 0, INITIALISING = 1, READY = 2, FAILED = 3;
inline constexpr int REFILL = 1016, STACK_CAPACITY = 2008;

inline constexpr uint64_t small_block_bytes(unsigned small_class) {
    return small_class < 16 ? 4 * (small_class + 1) : 64 + 16 * (small_class - 15);
}

// malloc's class for 1 to 256 bytes under coarse or fine routing.
inline constexpr unsigned malloc_class(uint64_t size, bool fine) {
    constexpr unsigned COARSE[16] = {0, 1, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15};
    if (size > 64) return unsigned((size + 15) / 16 + 11);
    unsigned step = unsigned((size + 3) / 4 - 1);
    return fine ? step : COARSE[step];
}

// calloc's class for a total rounded to 16 bytes, 0 to 256: routing never applies.
inline constexpr unsigned calloc_class(uint64_t rounded) {
    constexpr unsigned UP_TO_64[5] = {0, 3, 7, 11, 15};
    return rounded <= 64 ? UP_TO_64[rounded / 16] : unsigned(rounded / 16 + 11);
}

// The unit of the bucket class serving `size` (at most 35328) bytes.
inline constexpr uint64_t bucket_bytes(uint64_t size) {
    constexpr uint64_t ABOVE_2688[] = {2816, 2944, 3072,  3200,  3328,  3520,  3712,  3904,
                                       4096, 4416, 4672,  4992,  5376,  5888,  6400,  7040,
                                       7808, 8832, 10048, 11776, 14080, 17664, 23552, 35328};
    if (size <= 2688) return size <= 64 ? 64 : (size + 63) / 64 * 64;
    unsigned c = 0;
    while (ABOVE_2688[c] < size) ++c;
    return ABOVE_2688[c];
}

// The groups of the run that serves `size` bytes: rounded by tier, and past 32768 groups to
// whole 512-group blocks of the bitmap.
inline constexpr uint64_t run_groups(uint64_t size) {
    auto up = [size](uint64_t step) { return (size + step - 1) / step; };
    uint64_t groups = up(GROUP_BYTES);
    if (groups <= 63) return groups;
    if (groups <= 504) return 8 * up(565248);
    if (groups <= 4032) return 64 * up(4521984);
    if (groups <= 32768) return 512 * up(36175872);
    return (groups + 511) / 512 * 512;
}

enum class area : uint8_t { small, bucket, run, huge_run, zeroed, foreign };

struct placement {
    area where;
    unsigned small_class;  // of a small block
    uint64_t usable;       // bytes from the block's address to the end of what serves it
};

// Where a block handed out by the heap lies, from its address and the records that serve it.
inline placement place(const void* block) {
    uint64_t address = reinterpret_cast<uint64_t>(block), low = address & OFFSET_MASK;
    unsigned small_class = unsigned(low / SEGMENT_BYTES);
    if (low < BUCKET_AREA_OFFSET) {
        const small_class_head_record& head = heap_state.small_class_head[small_class];
        if (head.segment_key == address >> 33 && head.units != 0)
            return {area::small, small_class, 4 * uint64_t{head.units}};
    }
    uint64_t in_area = address - heap_state.bucket_area_base;
    if (heap_state.bucket_area_base != 0 && in_area < BUCKET_AREA_BYTES) {
        const group_descriptor_record& group = heap_state.group_descriptor[in_area / GROUP_BYTES];
        if (group.bucket.unit_size != 0) return {area::bucket, 0, group.bucket.unit_size};
        const large_run_view& run = group.large;
        return {run.run_groups > 4032 ? area::huge_run : area::run, 0,
                run.run_groups * GROUP_BYTES - (address - run.group_base)};
    }
    uint64_t zeroed = address - heap_state.zeroed_region_base;
    if (heap_state.zeroed_region_base != 0 && zeroed < ZEROED_BYTES)
        return {area::zeroed, 0,
                uint64_t{heap_state.zeroed_run_length[zeroed / SLOT_BYTES]} * 65536};
    return {area::foreign, 0, 0};  // the C runtime's, or no block at all
}

}  // namespace tarnheap::testing
