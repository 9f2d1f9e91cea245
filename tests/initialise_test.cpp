// Start-up: the small-class layout, the state a first request leaves behind, and the two ways
// initialisation fails.
#include <cerrno>
#include <cstdint>
#include <random>
#include <string>

#include "platform/platform.h"
#include "state/initialise.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

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

constexpr uint32_t LAST_R = 524286;
INSTANTIATE_TEST_SUITE_P(
    both_ends_of_the_gap, small_class_capacity,
    ::testing::Values(worked_capacity{0, 0, 32537600}, worked_capacity{0, LAST_R, 24403216},
                      worked_capacity{3, 0, 8323572}, worked_capacity{3, LAST_R, 6242684},
                      worked_capacity{15, 0, 2093061}, worked_capacity{15, LAST_R, 1569797},
                      worked_capacity{16, 0, 1675102}, worked_capacity{16, LAST_R, 1256328},
                      worked_capacity{27, 0, 524031}, worked_capacity{27, LAST_R, 393024}),
    [](const auto& info) {
        return "class_" + std::to_string(info.param.small_class) + "_gap_" +
               std::to_string(info.param.r) + "_holds_" + std::to_string(info.param.capacity);
    });

uint64_t segment_end(const small_class_plan& plan, uint32_t block_size) {
    return uint64_t{plan.gap_bytes} + 64 + plan.bitmap_bytes + 64 +
           uint64_t{plan.capacity} * block_size;
}

TEST(small_class_layout, fills_its_segment_as_far_as_whole_blocks_and_bitmap_allow) {
    std::mt19937 random(2024);
    for (int draw = 0; draw < 20000; ++draw) {
        unsigned small_class = random() % 28;
        uint32_t block_size = uint32_t(small_block_bytes(small_class));
        uint32_t r = random() % 524287;
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
    ASSERT_EQ(heap_state.init_state, READY);
    // Test processes run without address-space randomisation: the hint is free.
    EXPECT_EQ(region_base(), REGION_HINT);
    EXPECT_EQ(reinterpret_cast<uint64_t>(first), heap_state.small_class[0].first_block);
    const uint8_t coarse_routes[28] = {0,  1,  3,  3,  7,  7,  7,  7,  11, 11, 11, 11, 15, 15,
                                       15, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27};
    for (unsigned c = 0; c < 28; ++c) {
        const small_class_head_record& head = heap_state.small_class_head[c];
        const small_class_record& descriptor = heap_state.small_class[c];
        uint64_t segment = region_base() + c * SEGMENT_BYTES;
        EXPECT_EQ(head.segment_key, REGION_HINT >> 33);
        EXPECT_EQ(head.units * 4u, descriptor.block_size);
        EXPECT_EQ(descriptor.block_size, small_block_bytes(c));
        EXPECT_GE(descriptor.first_block - segment, 128u);
        EXPECT_EQ((descriptor.first_block - segment) % 64, 0u);
        EXPECT_LE(descriptor.first_block + uint64_t{descriptor.capacity} * descriptor.block_size,
                  segment + SEGMENT_BYTES);
        EXPECT_EQ(head.route, coarse_routes[c]);
        if (c != 0) {
            EXPECT_EQ(descriptor.uncommitted_base, segment);
        }
    }
    // Class 0 repeats class 1's 64 bytes; every other class holds the largest size it serves.
    EXPECT_EQ(heap_state.bucket_class_table[0].bucket_size, 64u);
    for (unsigned c = 1; c < 67; ++c) {
        uint64_t size = heap_state.bucket_class_table[c].bucket_size;
        EXPECT_EQ(size, bucket_bytes(size)) << c;
        EXPECT_GT(size, c > 1 ? heap_state.bucket_class_table[c - 1].bucket_size : 0) << c;
    }
    EXPECT_EQ(heap_state.bucket_class_table[66].bucket_size, 35328u);
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
    ASSERT_LE(count, 499u);
    for (uint32_t group = 0; group < GROUP_COUNT; ++group) {
        bool set = (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
        ASSERT_EQ(set, group < count) << group;
    }
    EXPECT_EQ(search.cursor, count - 1);
    EXPECT_EQ(search.high_water, count);
}

// Something else already lives at the hint, or the platform refuses the reservation: the heap
// does not look elsewhere and leaves everything to the C runtime for good, without a word.
struct reservation_failure {
    const char* name;
    void* (*prepare)();  // returns what to give back afterwards
};

const reservation_failure RESERVATION_FAILURES[] = {
    {"hint_taken",
     [] {
         return platform_virtual_alloc(reinterpret_cast<void*>(REGION_HINT), 0x10000,
                                       MEMORY_RESERVE, PAGE_READ_WRITE);
     }},
    {"reservation_refused",
     [] {
         platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t mode) {
             return type == MEMORY_RESERVE ? nullptr : platform_virtual_alloc(at, size, type, mode);
         };
         return static_cast<void*>(nullptr);
     }},
};

class failed_initialisation : public fresh_heap,
                              public ::testing::WithParamInterface<reservation_failure> {};

TEST_P(failed_initialisation, leaves_every_request_to_the_c_runtime) {
    void* squatter = GetParam().prepare();
    ::testing::internal::CaptureStderr();
    void* block = tarnheap_malloc(100);
    EXPECT_EQ(heap_state.init_state, FAILED);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(heap_state.small_class_head[18].segment_key, 0u);
    static void* released;
    auto c_free = heap_state.fallback_free;
    heap_state.fallback_free = [](void* freed) { released = freed; };
    tarnheap_free(block);
    EXPECT_EQ(released, block);
    c_free(block);
    EXPECT_NE(tarnheap_calloc(4, 4), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    if (squatter != nullptr) platform_virtual_free(squatter, 0, MEMORY_RELEASE);
}

INSTANTIATE_TEST_SUITE_P(causes, failed_initialisation, ::testing::ValuesIn(RESERVATION_FAILURES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
