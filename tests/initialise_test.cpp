// Start-up: the small-class layout, the state a first request leaves behind, and the two ways
// initialisation fails.
#include <cerrno>
#include <cstdint>
#include <random>

#include "bucket/bucket_size_table.h"
#include "platform/platform.h"
#include "small/small_class_table.h"
#include "state/initialise.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

struct worked_capacity {
    unsigned small_class;
    uint32_t r;
    uint32_t capacity;
};

class small_class_capacity : public ::testing::TestWithParam<worked_capacity> {};

TEST_P(small_class_capacity, matches_the_worked_values) {
    const worked_capacity& c = GetParam();
    EXPECT_EQ(plan_small_class(small_block_bytes(c.small_class), c.r).capacity, c.capacity);
}

constexpr uint32_t LAST_R = SMALL_GAP_STEPS - 1;
INSTANTIATE_TEST_SUITE_P(
    both_ends_of_the_gap, small_class_capacity,
    ::testing::Values(worked_capacity{0, 0, 32537600}, worked_capacity{0, LAST_R, 24403216},
                      worked_capacity{3, 0, 8323572}, worked_capacity{3, LAST_R, 6242684},
                      worked_capacity{15, 0, 2093061}, worked_capacity{15, LAST_R, 1569797},
                      worked_capacity{16, 0, 1675102}, worked_capacity{16, LAST_R, 1256328},
                      worked_capacity{27, 0, 524031}, worked_capacity{27, LAST_R, 393024}));

uint64_t segment_end(const small_class_plan& plan, uint32_t block_size) {
    return uint64_t{plan.gap_bytes} + 64 + plan.bitmap_bytes + 64 +
           uint64_t{plan.capacity} * block_size;
}

TEST(small_class_layout, fills_its_segment_as_far_as_whole_blocks_and_bitmap_allow) {
    std::mt19937 random(2024);
    for (int draw = 0; draw < 20000; ++draw) {
        unsigned small_class = random() % SMALL_CLASS_COUNT;
        uint32_t block_size = small_block_bytes(small_class);
        uint32_t r = random() % SMALL_GAP_STEPS;
        small_class_plan plan = plan_small_class(block_size, r);
        ASSERT_EQ(plan.gap_bytes, 64 * r);
        ASSERT_EQ(plan.bitmap_bytes % 64, 0u);
        ASSERT_GE(uint64_t{plan.bitmap_bytes} * 8, plan.capacity);
        ASSERT_LE(segment_end(plan, block_size), SEGMENT_BYTES) << small_class << " " << r;
        // One block more, with the bitmap it needs, would no longer fit.
        small_class_plan bigger = plan;
        ++bigger.capacity;
        bigger.bitmap_bytes = ((bigger.capacity + 511) >> 3) & ~63u;
        ASSERT_GT(segment_end(bigger, block_size), SEGMENT_BYTES) << small_class << " " << r;
    }
}

class initialisation : public fresh_heap {};

TEST_F(initialisation, a_first_request_lays_out_the_region) {
    void* first = tarnheap_malloc(1);
    ASSERT_EQ(heap_state.init_state, INIT_READY);
    // Test processes run without address-space randomisation: the hint is free.
    EXPECT_EQ(region_base(), REGION_HINT);
    EXPECT_EQ(region_base() % REGION_BYTES, 0u);
    EXPECT_EQ(reinterpret_cast<uint64_t>(first), heap_state.small_class[0].first_block);
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c) {
        const small_class_head_record& head = heap_state.small_class_head[c];
        const small_class_record& descriptor = heap_state.small_class[c];
        uint64_t segment = region_base() + c * SEGMENT_BYTES;
        EXPECT_EQ(head.segment_key, region_base() >> SEGMENT_KEY_SHIFT);
        EXPECT_EQ(head.units * 4u, descriptor.block_size);
        EXPECT_EQ(descriptor.block_size, SMALL_CLASS_TABLE.bytes[c]);
        EXPECT_GE(descriptor.first_block - segment, 128u);
        EXPECT_EQ((descriptor.first_block - segment) % 64, 0u);
        EXPECT_LE(descriptor.first_block + uint64_t{descriptor.capacity} * descriptor.block_size,
                  segment + SEGMENT_BYTES);
        EXPECT_EQ(head.route, COARSE_ROUTES.route[c]);
        if (c != 0) {
            EXPECT_EQ(descriptor.uncommitted_base, segment);
        }
    }
    for (unsigned c = 0; c < BUCKET_CLASS_COUNT; ++c)
        EXPECT_EQ(heap_state.bucket_class_table[c].bucket_size, BUCKET_SIZE_TABLE.bytes[c]);
    EXPECT_EQ(heap_state.bucket_area_base, region_base() + BUCKET_AREA_OFFSET);
    EXPECT_NE(heap_state.fallback_malloc, nullptr);
    EXPECT_NE(heap_state.fallback_free, nullptr);
    EXPECT_NE(heap_state.fallback_calloc, nullptr);
    EXPECT_NE(heap_state.fallback_realloc, nullptr);
}

TEST_F(initialisation, the_warm_up_claims_the_lowest_groups) {
    start_heap();
    const run_search_state& search = heap_state.group_search_state;
    uint32_t count = search.run_counts[0];
    ASSERT_GE(count, 1u);
    ASSERT_LE(count, WARM_UP_SPAN);
    for (uint32_t group = 0; group < GROUP_COUNT; ++group) {
        bool set = (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
        ASSERT_EQ(set, group < count) << group;
    }
    EXPECT_EQ(search.cursor, count - 1);
    EXPECT_EQ(search.high_water, count);
}

// The two failures leave the heap to the C runtime for good, without a word.
class failed_initialisation : public fresh_heap {
  protected:
    void expect_the_fallback_serves_everything() {
        ::testing::internal::CaptureStderr();
        void* block = tarnheap_malloc(100);
        EXPECT_EQ(heap_state.init_state, INIT_FAILED);
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(heap_state.small_class_head[18].segment_key, 0u);
        static void* released;
        released = nullptr;
        auto real_free = heap_state.fallback_free;
        heap_state.fallback_free = [](void* freed) { released = freed; };
        tarnheap_free(block);
        EXPECT_EQ(released, block);
        real_free(block);
        void* zeroed = tarnheap_calloc(4, 4);
        EXPECT_NE(zeroed, nullptr);
        tarnheap_free(zeroed);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    }
};

TEST_F(failed_initialisation, when_the_hint_is_taken) {
    // Something else already lives at the hint: the reservation fails there, and the heap
    // does not look elsewhere.
    void* squatter = platform_virtual_alloc(reinterpret_cast<void*>(REGION_HINT), 0x10000,
                                            MEMORY_RESERVE, PAGE_READ_WRITE);
    ASSERT_NE(squatter, nullptr);
    expect_the_fallback_serves_everything();
    platform_virtual_free(squatter, 0, MEMORY_RELEASE);
}

TEST_F(failed_initialisation, when_reservation_is_refused) {
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type == MEMORY_RESERVE) return static_cast<void*>(nullptr);
        return platform_virtual_alloc(at, size, type, protect);
    };
    expect_the_fallback_serves_everything();
}

TEST_F(initialisation, mallopt_before_the_first_request_is_overwritten) {
    tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    EXPECT_EQ(heap_state.init_state, INIT_NONE);
    tarnheap_free(tarnheap_malloc(9));
    EXPECT_EQ(heap_state.small_class_head[2].route, 3);
}

}  // namespace
}  // namespace tarnheap::testing
