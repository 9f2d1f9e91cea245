// Bucket classes: the mapping of request sizes to classes and the unit claim shared by the fast
// and slow paths.
#pragma once

#include <cstdint>

#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

// The class of a request of 0 to 35328 bytes: a shift up to 2688, then a ladder of comparisons
// over the upper sizes (no upper check: larger requests never come here).
unsigned bucket_class_of(uint64_t size);

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
    return group.group_base + uint64_t{64 * word + bit} * bucket_size;
}

}  // namespace tarnheap
