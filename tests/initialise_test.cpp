// Start-up: the small classes' capacities and the groups a first request claims. (The ways
// initialisation fails are with the other injected faults.)
#include <cstdint>
#include <random>

#include "state/initialise.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

struct worked_capacity {
    unsigned small_class;
    uint32_t r, capacity;
};

constexpr uint32_t LAST_R = 524286;
constexpr worked_capacity WORKED_CAPACITIES[] = {
    {0, 0, 32537600}, {0, LAST_R, 24403216}, {3, 0, 8323572},  {3, LAST_R, 6242684},
    {15, 0, 2093061}, {15, LAST_R, 1569797}, {16, 0, 1675102}, {16, LAST_R, 1256328},
    {27, 0, 524031},  {27, LAST_R, 393024}};

TEST(small_class_layout, holds_the_worked_capacities_at_both_ends_of_the_gap) {
    for (const worked_capacity& c : WORKED_CAPACITIES)
        EXPECT_EQ(plan_small_class(small_block_bytes(c.small_class), c.r).capacity, c.capacity)
            << "class " << c.small_class << ", gap " << c.r;
}

// Between the ends: as many blocks as fit with their bitmap, and not one more.
TEST(small_class_layout, fills_its_segment_at_every_gap) {
    std::mt19937 random(2024);
    for (int draw = 0; draw < 5000; ++draw) {
        unsigned small_class = random() % 28;
        uint64_t block = small_block_bytes(small_class), r = random() % 524287;
        small_class_plan plan = plan_small_class(uint32_t(block), uint32_t(r));
        // The gap, a line, the bitmap (a bit per block, whole lines), a line, the blocks.
        auto end = [&](uint64_t blocks) {
            return 64 * r + 128 + (blocks + 511) / 512 * 64 + blocks * block;
        };
        ASSERT_EQ(plan.gap_bytes, 64 * r);
        ASSERT_LE(end(plan.capacity), SEGMENT_BYTES) << small_class << " " << r;
        ASSERT_GT(end(plan.capacity + 1), SEGMENT_BYTES) << small_class << " " << r;
    }
}

// Where the region and its areas lie shows in the failed commits' messages, and the heap's
// audit checks each class's layout; the warm-up's groups show only here.
TEST_F(fresh_heap, a_first_request_claims_the_lowest_groups_for_the_warm_up) {
    tarnheap_free(tarnheap_malloc(1));
    const run_search_state& search = heap_state.group_search_state;
    uint32_t count = search.run_counts[0];
    ASSERT_TRUE(count >= 1 && count <= 499) << count;
    for (uint32_t group = 0; group < GROUP_COUNT; ++group)
        ASSERT_EQ((heap_state.group_bitmap[group / 8] >> (group % 8)) & 1, group < count) << group;
    EXPECT_EQ(search.cursor, count - 1);
    EXPECT_EQ(search.high_water, count);
}

}  // namespace
}  // namespace tarnheap::testing
