// Runs of whole 512-bit blocks: the fixed lengths of 8 to 64 blocks and the generic finder.
// The last block of a candidate is probed; a busy probe moves the candidate a whole run
// further, a free one is verified downward.
#include <emmintrin.h>

#include <algorithm>
#include <cstring>

#include "runs/run_finder_table.h"
#include "runs/search_order.h"
#include "runs/tier_tables.h"

namespace tarnheap {
namespace {

constexpr uint64_t BLOCK_BITS = 512;
constexpr uint64_t BLOCK_BYTES = BLOCK_BITS / 8;

// All 64 bytes zero. Baseline vectors: wider loads would need a processor check.
TARNHEAP_HOT bool block_is_free(const uint8_t* block) {
    const __m128i* at = reinterpret_cast<const __m128i*>(block);
    __m128i any = _mm_or_si128(_mm_or_si128(_mm_loadu_si128(at), _mm_loadu_si128(at + 1)),
                               _mm_or_si128(_mm_loadu_si128(at + 2), _mm_loadu_si128(at + 3)));
    return _mm_movemask_epi8(_mm_cmpeq_epi8(any, _mm_setzero_si128())) == 0xffff;
}

struct block_run_scan {
    uint8_t* bitmap;
    int64_t last_first_block;  // ceil(limit / 512) - blocks
    uint64_t blocks;

    TARNHEAP_HOT bool is_free(uint64_t block) const {
        return block_is_free(bitmap + block * BLOCK_BYTES);
    }

    TARNHEAP_HOT int64_t find(uint64_t from) const {
        uint64_t first = from / BLOCK_BITS;
        while (static_cast<int64_t>(first) <= last_first_block) {
            if (!is_free(first + blocks - 1)) {
                first += blocks;
                continue;
            }
            uint64_t below = first + blocks - 1;
            while (below > first && is_free(below - 1)) --below;
            if (below == first) return static_cast<int64_t>(first * BLOCK_BITS);
            first = below;
        }
        return NO_RUN;
    }

    // The run's bytes are zeroed and its bits stay clear: a block-level run is recorded only in
    // the search state, and keeping it from being handed out again is the caller's concern.
    TARNHEAP_HOT void claim(uint64_t first) const {
        std::memset(bitmap + first / 8, 0, blocks * BLOCK_BYTES);
    }
};

int64_t claim_blocks(uint8_t* bitmap, uint64_t limit, run_search_state* state, uint32_t length,
                     uint64_t blocks, unsigned length_class) {
    int64_t last_first_block =
        static_cast<int64_t>((limit + BLOCK_BITS - 1) / BLOCK_BITS) - static_cast<int64_t>(blocks);
    return claim_first_fit(state, search_start(state, length), blocks * BLOCK_BITS, length_class,
                           limit, block_run_scan{bitmap, last_first_block, blocks});
}

template <unsigned K>
int64_t fixed_block_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    return block_run_finder(bitmap, limit, state, K * BLOCK_BITS, K);
}

constexpr auto BLOCK_RUN_MEMBERS = tier_members<8, 57>(
    [](auto k) -> run_finder { return fixed_block_finder<decltype(k)::value>; });

}  // namespace

int64_t block_run_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state, int32_t length,
                         uint32_t k) {
    return claim_blocks(bitmap, limit, state, static_cast<uint32_t>(length), k,
                        run_length_class(uint64_t{k} * BLOCK_BITS));
}

int64_t generic_block_finder(uint8_t* bitmap, uint64_t limit, uint64_t* length,
                             run_search_state* state) {
    // A zero length is served as one block, as slot 0 serves it as one bit.
    uint64_t blocks = std::max<uint64_t>(1, *length / BLOCK_BITS + (*length % BLOCK_BITS != 0));
    // No pass could find a run longer than the whole bitmap; past this test the length also
    // fits the start estimate's 32 bits.
    if (blocks > (limit + BLOCK_BITS - 1) / BLOCK_BITS) return -1;
    uint64_t rounded = blocks * BLOCK_BITS;
    // Counts nothing, whatever the length: the large path brings it runs longer than any class,
    // and their release uncounts nothing either.
    int64_t first = claim_blocks(bitmap, limit, state, static_cast<uint32_t>(rounded), blocks, 0);
    if (first >= 0) *length = rounded;
    return first;
}

run_finder block_run_member(unsigned k) {
    return BLOCK_RUN_MEMBERS[k];
}

}  // namespace tarnheap
