// Large blocks end to end: rounded runs of groups, reuse through the run cache, the generic
// path, exhaustion, the lazy commit of the bucket area, and the zeroed region of calloc. On
// Linux runs of gigabytes cost nothing as long as their blocks are not written.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "bucket/bucket_release.h"
#include "bucket/commit_groups.h"
#include "platform/platform.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

bool in_bucket_area(const void* block) {
    return reinterpret_cast<uint64_t>(block) - heap_state.bucket_area_base < BUCKET_AREA_BYTES;
}

uint32_t group_of(const void* block) {
    return static_cast<uint32_t>((reinterpret_cast<uint64_t>(block) - heap_state.bucket_area_base) /
                                 GROUP_BYTES);
}

const large_run_view& run_of(const void* block) {
    return heap_state.group_descriptor[group_of(block)].large;
}

bool bit_set(const uint8_t* bitmap, uint64_t bit) {
    return (bitmap[bit / 8] >> (bit % 8)) & 1;
}

bool all_zero(const void* block, uint64_t bytes) {
    const auto* first = static_cast<const char*>(block);
    return std::all_of(first, first + bytes, [](char byte) { return byte == 0; });
}

class large_blocks : public fresh_heap {};

struct rounding_case {
    uint64_t size;
    uint32_t groups;
    unsigned entry;  // 0: the generic path, never cached
};

class large_block_rounding : public large_blocks,
                             public ::testing::WithParamInterface<rounding_case> {};

TEST_P(large_block_rounding, a_block_gets_its_rounded_run_and_the_same_run_again) {
    const rounding_case& c = GetParam();
    void* block = tarnheap_malloc(c.size);
    ASSERT_TRUE(in_bucket_area(block));
    uint32_t group = group_of(block);
    EXPECT_EQ(run_of(block).run_groups, c.groups);
    EXPECT_EQ(run_of(block).unit_size, 0);

    tarnheap_free(block);
    EXPECT_EQ(heap_state.run_length_table[c.entry].cached_runs,
              c.entry != 0 ? &heap_state.group_descriptor[group] : nullptr);
    EXPECT_EQ(heap_state.cached_groups, c.entry != 0 ? c.groups : 0);
    EXPECT_EQ(group_of(tarnheap_malloc(c.size)), group);
    EXPECT_EQ(heap_state.cached_groups, 0u);
}

// The boundaries of each rounding step, and the designed examples. Past 32768 groups a run is
// rounded up to whole 512-group blocks of the bitmap.
INSTANTIATE_TEST_SUITE_P(
    boundaries, large_block_rounding,
    ::testing::Values(rounding_case{35329, 1, 1}, rounding_case{70656, 1, 1},
                      rounding_case{70657, 2, 2}, rounding_case{4451328, 63, 63},
                      rounding_case{4451329, 64, 72}, rounding_case{10485760, 152, 83},
                      rounding_case{35610624, 504, 127}, rounding_case{35610625, 512, 136},
                      rounding_case{284884992, 4032, 191}, rounding_case{284884993, 4096, 200},
                      rounding_case{2315255808, 32768, 256},
                      rounding_case{2315255809, 65 * 512, 0}),
    [](const ::testing::TestParamInfo<rounding_case>& info) {
        return std::to_string(info.param.size) + "_bytes";
    });

TEST_F(large_blocks, released_blocks_are_reused_last_in_first_out_and_resize_takes_the_run_start) {
    void* a = tarnheap_malloc(40000);
    void* b = tarnheap_malloc(40000);
    tarnheap_free(a);
    tarnheap_free(b);
    EXPECT_EQ(group_of(tarnheap_malloc(40000)), group_of(b));
    EXPECT_EQ(group_of(tarnheap_malloc(40000)), group_of(a));
    void* moved = tarnheap_realloc(nullptr, 60000);
    EXPECT_EQ(reinterpret_cast<uint64_t>(moved), run_of(moved).group_base);
}

TEST_F(large_blocks, calloc_zeroes_reused_units_and_runs) {
    for (size_t size : {304, 3008, 35328, 40000, 100000, 5000000}) {
        void* dirty = tarnheap_malloc(size);
        std::memset(dirty, 0xCD, size);
        tarnheap_free(dirty);
        void* block = tarnheap_calloc(size / 16, 16);
        EXPECT_EQ(group_of(block), group_of(dirty)) << size;
        EXPECT_TRUE(all_zero(block, size)) << size;
    }
}

// A run claimed at block level leaves its groups clear in the group bitmap, so a later search
// finds them again and two live blocks share groups: the designed behaviour, kept as it is.
TEST_F(large_blocks, a_run_claimed_at_block_level_is_found_again) {
    void* first = tarnheap_malloc(284884993);
    uint32_t group = group_of(first);
    ASSERT_EQ(run_of(first).run_groups, 4096u);
    void* second = tarnheap_malloc(284884993);
    EXPECT_GE(group_of(second), group);
    EXPECT_LT(group_of(second), group + 4096);
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
    EXPECT_EQ(run_count(heap_state.group_search_state, 1), GROUP_COUNT);
    EXPECT_EQ(take(3000), 0u);
    EXPECT_EQ(foreign.size(), 2u);

    // Three neighbours released in order: the trim before the claim evicts only the oldest,
    // too short alone; the two still cached are enough, so a flush and a retry follow.
    uint32_t g = GROUP_COUNT - handed_out + 1000;
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
    commit_groups(GROUP_COUNT - 1, 1);
    uint64_t base = heap_state.bucket_area_base;
    constexpr uint64_t CHUNK = 0x2001C000, LAST_CHUNK = 0x1FF20000;
    const std::vector<std::pair<uint64_t, uint64_t>> expected = {
        {base, CHUNK}, {base + CHUNK, CHUNK}, {base + 8 * CHUNK, LAST_CHUNK}};
    EXPECT_EQ(commits, expected);
}

TEST_F(large_blocks, a_failed_chunk_commit_prints_both_messages_once_and_is_never_retried) {
    start_heap();
    // The commit reports failure but does happen, so that the blocks stay usable here.
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        void* got = platform_virtual_alloc(at, size, type, protect);
        return type == MEMORY_COMMIT && in_bucket_area(at) ? nullptr : got;
    };
    platform_seams.last_error = [] { return uint32_t{1455}; };
    ::testing::internal::CaptureStderr();
    std::memset(tarnheap_malloc(3000), 0x11, 3000);
    std::string printed = ::testing::internal::GetCapturedStderr();
    void* chunk = reinterpret_cast<void*>(heap_state.bucket_area_base);
    char expected[512];
    std::snprintf(expected, sizeof expected,
                  "Error: VirtualAlloc(0x%p, 536985600, MEM_COMMIT, PAGE_READWRITE) failed with "
                  "the error: 1455\nError: VirtualAlloc(0x%p, 536985600, MEM_COMMIT, "
                  "PAGE_READWRITE) returned a different address: 0x%p\n",
                  chunk, chunk, nullptr);
    // %p is the C runtime's own: msvcrt renders hex digits in capitals.
    for (char& c : printed) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (char* c = expected; *c != 0; ++c) *c = static_cast<char>(std::tolower(*c));
    EXPECT_EQ(printed, expected);
    ::testing::internal::CaptureStderr();
    for (size_t size : {5000, 9000, 40000, 60000}) std::memset(tarnheap_malloc(size), 0x22, size);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

bool in_zeroed_region(const void* block) {
    return heap_state.zeroed_region_base != 0 &&
           reinterpret_cast<uint64_t>(block) - heap_state.zeroed_region_base < ZEROED_REGION_BYTES;
}

uint64_t slot_of(const void* block) {
    return (reinterpret_cast<uint64_t>(block) - heap_state.zeroed_region_base) >> ZEROED_SLOT_SHIFT;
}

TEST_F(large_blocks, the_zeroed_region_is_made_at_the_201st_qualifying_calloc) {
    for (int i = 0; i < 200; ++i) {
        void* block = tarnheap_calloc(1, 800000);
        ASSERT_TRUE(in_bucket_area(block)) << i;
        tarnheap_free(block);
    }
    // Requests outside 700 KiB to 1 MiB are not counted.
    tarnheap_free(tarnheap_calloc(1, 716784));
    tarnheap_free(tarnheap_calloc(1, 1048577));
    EXPECT_EQ(heap_state.zeroed_region_base, 0u);

    void* block = tarnheap_calloc(1, 800000);
    ASSERT_TRUE(in_zeroed_region(block));
    EXPECT_EQ(heap_state.zeroed_region_base, 0x7ff000000000u);
    // The warm-up's single slots come first, then the block's 13.
    EXPECT_EQ(slot_of(block), run_count(heap_state.zeroed_search_state, 1));
    EXPECT_EQ(heap_state.zeroed_run_length[slot_of(block)], 13u);
    EXPECT_TRUE(all_zero(block, 13 << ZEROED_SLOT_SHIFT));
}

struct zeroed_case {
    uint64_t total;
    bool zero_range_fails;  // then the block is filled directly
};

class zeroed_region : public large_blocks, public ::testing::WithParamInterface<zeroed_case> {};

TEST_P(zeroed_region, a_block_is_zero_again_when_handed_out_a_second_time) {
    const zeroed_case& c = GetParam();
    start_heap();
    heap_state.zeroed_uses = 200;  // past the requests that never use the region
    if (c.zero_range_fails)
        heap_state.memory_ops_copy.zero_range = [](void*, uint64_t, uint64_t) { return 1u; };
    uint64_t slots = (c.total + 65535) / 65536, bytes = slots << ZEROED_SLOT_SHIFT;
    void* block = tarnheap_calloc(c.total / 16, 16);
    ASSERT_TRUE(in_zeroed_region(block));
    uint64_t slot = slot_of(block);
    const run_search_state& search = heap_state.zeroed_search_state;
    EXPECT_EQ(heap_state.zeroed_run_length[slot], slots);
    EXPECT_EQ(search.run_counts[slots - 1], 1u);
    uint32_t high_water = search.high_water;

    std::memset(block, 0xEE, bytes);
    tarnheap_free(block);
    for (uint64_t s = slot; s < slot + slots; ++s)
        EXPECT_FALSE(bit_set(heap_state.zeroed_bitmap, s)) << s;
    EXPECT_EQ(search.run_counts[slots - 1], 0u);
    EXPECT_EQ(search.high_water, high_water);
    EXPECT_EQ(heap_state.zeroed_run_length[slot], slots);

    void* again = tarnheap_calloc(1, c.total);
    EXPECT_EQ(again, block);
    EXPECT_TRUE(all_zero(again, bytes));
}

INSTANTIATE_TEST_SUITE_P(bounds, zeroed_region,
                         ::testing::Values(zeroed_case{716800, false}, zeroed_case{720896, false},
                                           zeroed_case{720912, false}, zeroed_case{800000, false},
                                           zeroed_case{1048576, false},
                                           zeroed_case{1000000, true}));

}  // namespace
}  // namespace tarnheap::testing
