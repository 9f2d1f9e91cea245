// Which runs a trim and a flush evict from the run cache. (The lists themselves are checked by
// the heap's audit, which the stress test runs over traffic that fills and empties the cache.)
#include <cstdint>
#include <cstring>
#include <string>

#include "bucket/run_cache.h"
#include "support/case_printer.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

// Runs used here start well above the groups of the initial warm-up. The long run is the
// shortest a block can have (1900 groups round up to it): class 156, entry 158.
constexpr uint32_t FIRST_TEST_GROUP = 1000, LONG_FIRST = 20000, LONG_LENGTH = 1920;

bool group_claimed(uint64_t group) {
    return (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
}

// Claims a run in the group bitmap as a finder would, and caches it as a released run.
void put(uint32_t first, uint32_t length, unsigned length_class, unsigned entry) {
    for (uint32_t g = first; g < first + length; ++g)
        heap_state.group_bitmap[g / 8] |= static_cast<uint8_t>(1u << (g % 8));
    ++run_count(heap_state.group_search_state, length_class);
    cache_put(heap_state.group_descriptor[first], length, entry);
}

struct eviction_case {
    const char* name;
    uint32_t one_group_runs;  // cached first, oldest first
    bool with_long_run;       // cached last
    bool flush;               // rather than a trim
    uint32_t oldest_evicted;  // one-group runs evicted
};

class run_cache_eviction : public fresh_heap,
                           public ::testing::WithParamInterface<eviction_case> {};

TEST_P(run_cache_eviction, evicts_long_runs_then_short_ones_oldest_first) {
    const eviction_case& c = GetParam();
    start_heap();
    run_search_state expected = heap_state.group_search_state;
    for (uint32_t i = 0; i < c.one_group_runs; ++i) put(FIRST_TEST_GROUP + i, 1, 1, 1);
    if (c.with_long_run) put(LONG_FIRST, LONG_LENGTH, 156, 158);
    c.flush ? cache_flush() : cache_trim();

    uint32_t kept = c.one_group_runs - c.oldest_evicted;
    EXPECT_EQ(heap_state.cached_groups, kept);
    for (uint32_t i = 0; i < c.one_group_runs; ++i)
        EXPECT_EQ(group_claimed(FIRST_TEST_GROUP + i), i >= c.oldest_evicted) << i;
    EXPECT_FALSE(group_claimed(LONG_FIRST) || group_claimed(LONG_FIRST + LONG_LENGTH - 1));
    group_descriptor_record* runs = heap_state.group_descriptor + FIRST_TEST_GROUP;
    EXPECT_EQ(heap_state.short_runs_first, kept ? runs + c.oldest_evicted : nullptr);
    EXPECT_EQ(heap_state.run_length_table[1].cached_runs,
              kept ? runs + c.one_group_runs - 1 : nullptr);
    EXPECT_EQ(heap_state.long_runs_first, nullptr);
    EXPECT_EQ(heap_state.run_length_table[158].cached_runs, nullptr);
    // Each evicted run was released with its own length.
    run_count(expected, 1) += kept;
    const uint32_t* counts = heap_state.group_search_state.run_counts;
    EXPECT_EQ(std::memcmp(expected.run_counts, counts, sizeof expected.run_counts), 0);
}

// A trim keeps 118 groups of short runs, and evicts the oldest one when nothing else went; long
// runs go first; a flush evicts everything.
const eviction_case EVICTIONS[] = {{"118_short_trim_evicts_1", 118, false, false, 1},
                                   {"200_short_trim_evicts_82", 200, false, false, 82},
                                   {"50_short_and_a_long_trim_evicts_0", 50, true, false, 0},
                                   {"130_short_and_a_long_trim_evicts_12", 130, true, false, 12},
                                   {"30_short_and_a_long_flush_evicts_30", 30, true, true, 30}};

INSTANTIATE_TEST_SUITE_P(rules, run_cache_eviction, ::testing::ValuesIn(EVICTIONS),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
