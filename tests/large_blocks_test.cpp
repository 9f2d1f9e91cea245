// Large blocks: runs claimed at block level, exhaustion of the bucket area, its lazy commit, and
// the zeroed region of calloc (the request table of entry_points_test and the stress model
// check which run or slots serve each size). On Linux runs of gigabytes
// cost nothing as long as their blocks are not written.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "bucket/commit_groups.h"
#include "platform/platform.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

bool in_bucket_area(const void* block) {
    return reinterpret_cast<uint64_t>(block) - heap_state.bucket_area_base < BUCKET_AREA_BYTES;
}

uint32_t group_of(const void* block) {
    return uint32_t((reinterpret_cast<uint64_t>(block) - heap_state.bucket_area_base) /
                    GROUP_BYTES);
}

const large_run_view& run_of(const void* block) {
    return heap_state.group_descriptor[group_of(block)].large;
}

bool all_zero(const void* block, uint64_t bytes) {
    const auto* first = static_cast<const char*>(block);
    return std::all_of(first, first + bytes, [](char byte) { return byte == 0; });
}

class large_blocks : public fresh_heap {};

// A run claimed at block level leaves its groups clear in the group bitmap, so a later search
// finds them again and two live blocks share groups: the designed behaviour, kept as it is.
TEST_F(large_blocks, a_run_claimed_at_block_level_is_found_again) {
    void* first = tarnheap_malloc(284884993);
    ASSERT_EQ(run_of(first).run_groups, 4096u);
    void* second = tarnheap_malloc(284884993);
    EXPECT_GE(group_of(second), group_of(first));
    EXPECT_LT(group_of(second), group_of(first) + 4096);
}

// The area filled one group at a time, then: a full area sends requests to the fallback; a
// finder that fails while the cache holds enough groups gets a flush and a second try; and no
// group is ever handed out twice.
TEST_F(large_blocks, an_exhausted_area_flushes_the_cache_then_falls_back) {
    std::vector<void*> by_group(GROUP_COUNT), foreign;
    auto take = [&](uint64_t size) {
        void* block = tarnheap_malloc(size);
        if (!in_bucket_area(block)) {
            foreign.push_back(block);
            return uint32_t{0};
        }
        for (uint32_t g = group_of(block); g < group_of(block) + run_of(block).run_groups; ++g) {
            EXPECT_EQ(by_group[g], nullptr) << "group " << g << " handed out twice";
            by_group[g] = block;
        }
        return group_of(block);
    };
    uint32_t handed_out = 0;
    while (take(40000) != 0) ++handed_out;
    // Every group was claimed once, by the warm-up or for a block.
    EXPECT_EQ(heap_state.group_search_state.run_counts[0], GROUP_COUNT);
    EXPECT_EQ(take(3000), 0u);
    EXPECT_EQ(foreign.size(), 2u);

    // Three neighbours released in order: the trim before the claim evicts only the oldest,
    // too short alone; the two still cached are enough, so a flush and a retry follow.
    uint32_t g = uint32_t(GROUP_COUNT) - handed_out + 1000;
    for (uint32_t i = 0; i < 3; ++i) tarnheap_free(std::exchange(by_group[g + i], nullptr));
    EXPECT_EQ(take(2 * GROUP_BYTES), g);
    EXPECT_EQ(heap_state.cached_groups, 0u);
    EXPECT_EQ(take(2 * GROUP_BYTES), 0u);
    EXPECT_EQ(foreign.size(), 3u);
    EXPECT_EQ(take(40000), g + 2);
    for (void* block : foreign) tarnheap_free(block);
}

std::vector<std::pair<uint64_t, uint64_t>> commits;  // (address, size), in order

TEST_F(large_blocks, chunks_are_committed_once_each_in_order) {
    start_heap();
    commits.clear();
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type == MEMORY_COMMIT) commits.emplace_back(reinterpret_cast<uint64_t>(at), size);
        return platform_virtual_alloc(at, size, type, protect);
    };
    commit_groups(7599, 2);
    commit_groups(7000, 1000);
    commit_groups(60800, 1);
    commit_groups(68384, 1);
    uint64_t base = heap_state.bucket_area_base;
    constexpr uint64_t CHUNK = 0x2001C000, LAST_CHUNK = 0x1FF20000;
    const std::vector<std::pair<uint64_t, uint64_t>> expected = {
        {base, CHUNK}, {base + CHUNK, CHUNK}, {base + 8 * CHUNK, LAST_CHUNK}};
    EXPECT_EQ(commits, expected);
}

uint64_t slot_of(const void* block) {
    return (reinterpret_cast<uint64_t>(block) - heap_state.zeroed_region_base) / SLOT_BYTES;
}

// Only requests of 700 KiB to 1 MiB count; the 201st reserves the region at its hint, claims
// the warm-up's single slots and then the block's 13, fresh and zero.
TEST_F(large_blocks, the_zeroed_region_is_made_at_the_201st_qualifying_calloc) {
    for (int i = 0; i < 200; ++i) {
        void* block = tarnheap_calloc(1, 800000);
        ASSERT_TRUE(in_bucket_area(block)) << i;
        tarnheap_free(block);
    }
    tarnheap_free(tarnheap_calloc(1, 716784));
    tarnheap_free(tarnheap_calloc(1, 1048577));
    EXPECT_EQ(heap_state.zeroed_region_base, 0u);
    void* block = tarnheap_calloc(1, 800000);
    ASSERT_EQ(place(block).where, area::zeroed);
    EXPECT_EQ(heap_state.zeroed_region_base, ZEROED_HINT);
    EXPECT_EQ(slot_of(block), heap_state.zeroed_search_state.run_counts[0]);
    EXPECT_EQ(heap_state.zeroed_run_length[slot_of(block)], 13u);
    EXPECT_TRUE(all_zero(block, 13 * SLOT_BYTES));
}

// A release zeroes the block again (by hand when zero_range fails) and frees its slots, keeping
// the high-water mark; the same request then gets the same block, zero.
TEST_F(large_blocks, a_zeroed_block_is_zero_again_when_handed_out_a_second_time) {
    for (bool zero_range_fails : {false, true}) {
        start_heap();
        heap_state.zeroed_uses = 200;
        if (zero_range_fails)
            heap_state.memory_ops_copy.zero_range = [](void*, uint64_t, uint64_t) { return 1u; };
        void* block = tarnheap_calloc(62500, 16);  // 16 slots
        ASSERT_EQ(place(block).where, area::zeroed);
        uint64_t slot = slot_of(block);
        const run_search_state& search = heap_state.zeroed_search_state;
        EXPECT_EQ(search.run_counts[15], 1u);
        uint32_t high_water = search.high_water;
        std::memset(block, 0xEE, 16 * SLOT_BYTES);
        tarnheap_free(block);
        for (uint64_t s = slot; s < slot + 16; ++s)
            EXPECT_FALSE((heap_state.zeroed_bitmap[s / 8] >> (s % 8)) & 1) << s;
        EXPECT_EQ(search.run_counts[15], 0u);
        EXPECT_EQ(search.high_water, high_water);
        void* again = tarnheap_calloc(1, 1000000);
        EXPECT_EQ(again, block);
        EXPECT_TRUE(all_zero(again, 16 * SLOT_BYTES));
    }
}

}  // namespace
}  // namespace tarnheap::testing
