// Bucket classes: the mapping of request sizes to classes and the unit claim shared by the fast
// and slow paths.
#pragma once

#include <cstdint>

#include "bucket/bucket_size_table.h"
#include "checked/hand_out_checks.h"
#include "state/build_config.h"
#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

// Every unit size is a multiple of 64 bytes, so the class of a request is the class of its
// 64-byte step: one table byte per step, from 0 bytes (class 0) to 35328. Up to 2688 bytes the
// class is the step itself; above, the byte stands for a ladder of comparisons.
inline constexpr unsigned BUCKET_STEP_SHIFT = 6;
inline constexpr unsigned BUCKET_STEPS = (BUCKET_MAX >> BUCKET_STEP_SHIFT) + 1;

struct bucket_class_steps {
    uint8_t bucket_class[BUCKET_STEPS];
};

inline constexpr bucket_class_steps BUCKET_CLASS_BY_STEP = [] {
    bucket_class_steps table{};
    unsigned bucket_class = BUCKET_LINEAR_CLASSES;
    for (unsigned step = 0; step < BUCKET_STEPS; ++step) {
        if (step < BUCKET_LINEAR_CLASSES) {
            table.bucket_class[step] = static_cast<uint8_t>(step);
            continue;
        }
        while (BUCKET_SIZE_TABLE.bytes[bucket_class] < step << BUCKET_STEP_SHIFT) ++bucket_class;
        table.bucket_class[step] = static_cast<uint8_t>(bucket_class);
    }
    return table;
}();
// Each step's class is the smallest one from class 1 up whose units hold the step; step 0 is
// class 0. That is the smallest class holding any request of the step, as all sizes are
// multiples of 64.
static_assert([] {
    for (unsigned c = 0; c < BUCKET_CLASS_COUNT; ++c)
        if (BUCKET_SIZE_TABLE.bytes[c] % 64 != 0) return false;
    for (unsigned step = 1; step < BUCKET_STEPS; ++step) {
        unsigned c = BUCKET_CLASS_BY_STEP.bucket_class[step];
        if (c == 0 || BUCKET_SIZE_TABLE.bytes[c] < step * 64) return false;
        if (c > 1 && BUCKET_SIZE_TABLE.bytes[c - 1] >= step * 64) return false;
    }
    return BUCKET_CLASS_BY_STEP.bucket_class[0] == 0;
}());
static_assert(BUCKET_CLASS_BY_STEP.bucket_class[2688 / 64] == 42 &&
              BUCKET_CLASS_BY_STEP.bucket_class[2816 / 64] == 43 &&
              BUCKET_CLASS_BY_STEP.bucket_class[4096 / 64] == 51 &&
              BUCKET_CLASS_BY_STEP.bucket_class[4097 / 64 + 1] == 52 &&
              BUCKET_CLASS_BY_STEP.bucket_class[BUCKET_STEPS - 1] == BUCKET_CLASS_COUNT - 1);

// The class of a request of 0 to 35328 bytes (larger requests never come here).
TARNHEAP_HOT unsigned bucket_class_of(uint64_t size) {
    return BUCKET_CLASS_BY_STEP.bucket_class[(size + 63) >> BUCKET_STEP_SHIFT];
}

// Claims the lowest free unit of a group with free_units > 0 and returns its address. Eighteen
// fixed word tests, then the lowest clear bit; no scan position is kept, so units are handed
// out lowest first.
TARNHEAP_HOT uint64_t claim_unit(bucket_group_view& group, uint32_t bucket_size) {
    --group.free_units;
    // If all words were full (the free count rules it out), word 0 is taken.
    unsigned word = 0;
#pragma GCC unroll 18
    for (unsigned w = 0; w < UNIT_BITMAP_WORDS; ++w) {
        if (~group.unit_bitmap[w] != 0) {
            word = w;
            break;
        }
    }
    uint64_t bits = group.unit_bitmap[word];
    unsigned bit = static_cast<unsigned>(__builtin_ctzll(~bits));
    group.unit_bitmap[word] = bits | (uint64_t{1} << bit);
    uint64_t block = group.group_base + uint64_t{64 * word + bit} * bucket_size;
    if constexpr (CHECKED) check_unit_hand_out(group, block);
    return block;
}

// The same by index: the lowest free unit of `group`, a group of `bucket_class` with one free.
TARNHEAP_HOT uint64_t claim_in_group(uint32_t group, unsigned bucket_class) {
    return claim_unit(heap_state.group_descriptor[group].bucket,
                      heap_state.bucket_class_table[bucket_class].bucket_size);
}

}  // namespace tarnheap
