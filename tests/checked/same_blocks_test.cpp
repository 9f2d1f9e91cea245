// The checks change nothing the heap decides: the same random requests, made from the same state
// through the checked entries and through the heap's own (which the checked build keeps under
// other names), get the same blocks in the same order and leave the same state behind.
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "checked/shadow.h"
#include "platform/platform.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

extern "C" {
void* tarnheap_unchecked_malloc(size_t size);
void* tarnheap_unchecked_calloc(size_t count, size_t size);
void* tarnheap_unchecked_realloc(void* block, size_t size);
void tarnheap_unchecked_free(void* block);
}

namespace tarnheap::testing {
namespace {

// Each doubling from 1 byte to 64 MiB as likely as the next: small classes, bucket classes and
// runs alike. calloc's sizes stop at 1 MiB, the zeroed region's largest.
uint64_t drawn_size(std::mt19937_64& draws, unsigned doublings) {
    uint64_t high = uint64_t{1} << (draws() % doublings + 1);
    return high / 2 + draws() % (high / 2);
}

// Where the heap placed each of 20000 requests' blocks, in order; the C runtime's blocks, which
// its own state places, count as one address.
std::vector<uint64_t> serve(bool checked) {
    auto* malloc = checked ? tarnheap_malloc : tarnheap_unchecked_malloc;
    auto* calloc = checked ? tarnheap_calloc : tarnheap_unchecked_calloc;
    auto* realloc = checked ? tarnheap_realloc : tarnheap_unchecked_realloc;
    auto* free = checked ? tarnheap_free : tarnheap_unchecked_free;
    std::mt19937_64 draws(11);
    std::vector<void*> live;
    std::vector<uint64_t> placed;
    for (unsigned i = 0; i < 20000; ++i) {
        uint64_t kind = live.empty() ? 0 : draws() % 10;
        size_t pick = live.empty() ? 0 : draws() % live.size();
        if (kind >= 6) {
            free(live[pick]);
            live[pick] = live.back(), live.pop_back();
            continue;
        }
        void* block = kind < 3   ? malloc(drawn_size(draws, 26))
                      : kind < 4 ? calloc(1 + draws() % 3, drawn_size(draws, 20))
                                 : realloc(live[pick], drawn_size(draws, 26));
        if (kind >= 4 && block != nullptr) live[pick] = live.back(), live.pop_back();
        auto address = reinterpret_cast<uint64_t>(block);
        bool in_region = (address & ~(REGION_BYTES - 1)) == region_base();
        placed.push_back(in_region || address - heap_state.zeroed_region_base < 0x4000000 ? address
                                                                                          : 1);
        if (block != nullptr) live.push_back(block);
    }
    for (void* block : live) free(block);
    return placed;
}

class checked_build : public fresh_heap {};

TEST_F(checked_build, hands_out_the_heaps_blocks_and_leaves_its_state) {
    start_heap();
    heap_state.zeroed_uses = 200;
    auto start = std::make_unique<heap_state_record>(heap_state);
    std::vector<uint64_t> unchecked = serve(false);
    auto end = std::make_unique<heap_state_record>(heap_state);
    // The start once more: the small classes' bitmaps, which lie in their segments (64 empty
    // bytes before the first block), cleared; the zeroed region given back, to be reserved where
    // it was; the shadow empty.
    for (const small_class_record& small_class : heap_state.small_class)
        if (small_class.uncommitted_base == 0)
            std::memset(
                small_class.bitmap, 0,
                small_class.first_block - 64 - reinterpret_cast<uint64_t>(small_class.bitmap));
    if (heap_state.zeroed_region_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(heap_state.zeroed_region_base), 0,
                              MEMORY_RELEASE);
    release_shadow();
    start_shadow();
    heap_state = *start;
    EXPECT_EQ(serve(true), unchecked);
    EXPECT_EQ(std::memcmp(&heap_state, end.get(), sizeof heap_state), 0);
}

}  // namespace
}  // namespace tarnheap::testing
