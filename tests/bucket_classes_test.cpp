// Bucket classes end to end: request sizes to classes, units claimed lowest first and released,
// groups leaving and rejoining their class lists and passing through the run cache, checked
// against the state record.
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
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

bool group_claimed(uint32_t group) {
    return (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
}

// The smallest class whose units hold the request; 0 bytes is class 0.
unsigned reference_class(uint64_t size) {
    if (size == 0) return 0;
    unsigned c = 1;
    while (BUCKET_SIZE_TABLE.bytes[c] < size) ++c;
    return c;
}

TEST(bucket_class_of, gives_every_size_the_smallest_class_that_holds_it) {
    for (uint64_t size = 0; size <= BUCKET_MAX; ++size)
        ASSERT_EQ(bucket_class_of(size), reference_class(size)) << size << " bytes";
}

class bucket_classes : public fresh_heap {};

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
    EXPECT_TRUE(group_claimed(group));

    void* other = tarnheap_malloc(4992);
    EXPECT_EQ(reinterpret_cast<uint64_t>(other), group_base(group));
    EXPECT_EQ(group_view(group).class_index, 54);
    EXPECT_EQ(group_view(group).unit_count, 14);
    EXPECT_EQ(heap_state.cached_groups, 0u);
    EXPECT_EQ(heap_state.run_length_table[1].cached_runs, nullptr);
}

// Every group that serves a class, found from the descriptors alone.
bool is_bucket_group(uint32_t group) {
    return group_view(group).unit_size != 0 && group_view(group).group_base == group_base(group);
}

void expect_groups_consistent() {
    std::vector<bool> listed(GROUP_COUNT);
    for (unsigned c = 0; c < BUCKET_CLASS_COUNT; ++c) {
        uint32_t previous = 0;
        for (uint32_t g = heap_state.bucket_class_table[c].group_index; g != 0;
             g = group_view(g).next_group) {
            ASSERT_FALSE(listed[g]) << "group " << g << " listed twice";
            listed[g] = true;
            ASSERT_TRUE(is_bucket_group(g)) << g;
            EXPECT_EQ(group_view(g).class_index, c);
            EXPECT_EQ(group_view(g).prev_group, previous);
            EXPECT_EQ(group_view(g).detached, 0);
            previous = g;
        }
    }
    for (uint32_t g = 1; g < GROUP_COUNT; ++g) {
        if (!is_bucket_group(g)) continue;
        const bucket_group_view& group = group_view(g);
        unsigned used = 0;
        for (uint64_t word : group.unit_bitmap)
            used += static_cast<unsigned>(__builtin_popcountll(word));
        EXPECT_EQ(group.free_units + used, group.unit_count) << g;
        EXPECT_TRUE(group_claimed(g)) << g;
        // A group with a free unit is listed; a detached one is not.
        EXPECT_TRUE(group.free_units == 0 || listed[g]) << g;
        EXPECT_TRUE(group.detached == 0 || !listed[g]) << g;
    }
}

// Random bucket-sized and one-group blocks, so that emptied groups and released large blocks
// take turns in the run cache: no two live blocks ever overlap, every block stays in a group of
// a class that holds it, and the lists and counts stay true.
TEST_F(bucket_classes, random_traffic_keeps_groups_and_lists_consistent) {
    std::mt19937_64 random(20240611);
    std::map<uint64_t, uint64_t> live;  // start -> end
    std::vector<uint64_t> starts;
    for (int step = 0; step < 40000; ++step) {
        if (starts.empty() || random() % 5 < 3) {
            uint64_t size = random() % 8 == 0 ? 35329 + random() % 35000 : 257 + random() % 35072;
            auto* block = static_cast<uint8_t*>(tarnheap_malloc(size));
            uint64_t start = reinterpret_cast<uint64_t>(block);
            auto after = live.upper_bound(start);
            ASSERT_TRUE(after == live.end() || after->first >= start + size) << step;
            ASSERT_TRUE(after == live.begin() || std::prev(after)->second <= start) << step;
            live[start] = start + size;
            starts.push_back(start);
            if (size <= BUCKET_MAX) {
                ASSERT_GE(group_view(group_of(block)).unit_size, size) << step;
            }
            block[0] = block[size - 1] = 0x5A;
        } else {
            size_t pick = random() % starts.size();
            tarnheap_free(reinterpret_cast<void*>(starts[pick]));
            live.erase(starts[pick]);
            starts[pick] = starts.back();
            starts.pop_back();
        }
        if (step % 4000 == 3999) {
            expect_groups_consistent();
            if (HasFailure()) return;
        }
    }
}

}  // namespace
}  // namespace tarnheap::testing
