// Bucket classes end to end: request sizes to classes, units claimed lowest first and released,
// groups leaving and rejoining their class lists and passing through the run cache, checked
// against the state record.
#include <cstdint>
#include <vector>

#include "bucket/bucket_class.h"
#include "bucket/bucket_size_table.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

uint32_t group_of(const void* block) {
    uint64_t offset = reinterpret_cast<uint64_t>(block) & REGION_OFFSET_MASK;
    return static_cast<uint32_t>((offset - BUCKET_AREA_OFFSET) / GROUP_BYTES);
}

bucket_group_view& group_view(uint32_t group) {
    return heap_state.group_descriptor[group].bucket;
}

uint64_t group_base(uint32_t group) {
    return heap_state.bucket_area_base + group * GROUP_BYTES;
}

class bucket_classes : public fresh_heap {};

// Each class holds from one byte past the class below up to its unit size; 0 bytes is class 0.
// Requests above the small sizes find the same class through the entry point (a shift on the
// fast path, bucket_class_of on the slow one).
TEST_F(bucket_classes, every_class_holds_sizes_between_its_neighbours) {
    EXPECT_EQ(bucket_class_of(0), 0u);
    for (unsigned c = 1; c < BUCKET_CLASS_COUNT; ++c) {
        uint64_t lowest = c == 1 ? 1 : BUCKET_SIZE_TABLE.bytes[c - 1] + 1;
        for (uint64_t size : {lowest, uint64_t{BUCKET_SIZE_TABLE.bytes[c]}}) {
            EXPECT_EQ(bucket_class_of(size), c) << size;
            if (size <= SMALL_MAX) continue;
            const bucket_group_view& group = group_view(group_of(tarnheap_malloc(size)));
            EXPECT_EQ(group.class_index, c) << size;
            EXPECT_EQ(group.unit_size, BUCKET_SIZE_TABLE.bytes[c]) << size;
        }
    }
}

TEST_F(bucket_classes, a_group_hands_out_units_lowest_first_and_leaves_its_list_while_full) {
    std::vector<char*> units;
    for (int i = 0; i < 23; ++i) units.push_back(static_cast<char*>(tarnheap_malloc(3000)));
    uint32_t full = group_of(units[0]);
    for (int i = 0; i < 23; ++i)
        EXPECT_EQ(reinterpret_cast<uint64_t>(units[i]), group_base(full) + 3072 * i) << i;
    tarnheap_free(units[5]);
    EXPECT_EQ(tarnheap_malloc(3072), units[5]);

    // The full head is detached when the next request finds it.
    uint32_t fresh = group_of(tarnheap_malloc(3000));
    ASSERT_NE(fresh, full);
    EXPECT_EQ(group_view(full).detached, 1);
    EXPECT_EQ(group_view(full).next_group, 0u);
    EXPECT_EQ(heap_state.bucket_class_table[45].group_index, fresh);
    // A release re-links it at the head.
    tarnheap_free(units[7]);
    EXPECT_EQ(group_view(full).detached, 0);
    EXPECT_EQ(heap_state.bucket_class_table[45].group_index, full);
    EXPECT_EQ(group_view(full).next_group, fresh);
    EXPECT_EQ(group_view(fresh).prev_group, full);
    EXPECT_EQ(tarnheap_malloc(3000), units[7]);
}

TEST_F(bucket_classes, an_emptied_group_waits_in_the_cache_and_serves_another_class) {
    void* block = tarnheap_malloc(3000);
    uint32_t group = group_of(block);
    tarnheap_free(block);
    EXPECT_EQ(heap_state.bucket_class_table[45].group_index, 0u);
    EXPECT_EQ(heap_state.run_length_table[1].cached_runs, &heap_state.group_descriptor[group]);
    EXPECT_EQ(heap_state.cached_groups, 1u);
    // Still claimed in the group bitmap while cached.
    EXPECT_TRUE((heap_state.group_bitmap[group / 8] >> (group % 8)) & 1);

    void* other = tarnheap_malloc(4992);
    EXPECT_EQ(reinterpret_cast<uint64_t>(other), group_base(group));
    EXPECT_EQ(group_view(group).class_index, 54);
    EXPECT_EQ(group_view(group).unit_count, 14);
    EXPECT_EQ(heap_state.cached_groups, 0u);
    EXPECT_EQ(heap_state.run_length_table[1].cached_runs, nullptr);
}

}  // namespace
}  // namespace tarnheap::testing
