// Which runs a trim and a flush evict from the run cache; the heap's audit checks what they leave.
#include <cstdint>
#include <string>

#include "bucket/run_cache.h"
#include "state/heap_audit.h"
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
    run_search_state& search = heap_state.group_search_state;
    ++run_count(search, length_class);
    if (search.high_water < first + length) search.high_water = first + length;
    cache_put(heap_state.group_descriptor[first], length, entry);
}

struct eviction_case {
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
    for (uint32_t i = 0; i < c.one_group_runs; ++i) put(FIRST_TEST_GROUP + i, 1, 1, 1);
    if (c.with_long_run) put(LONG_FIRST, LONG_LENGTH, 156, 158);
    c.flush ? cache_flush() : cache_trim();

    EXPECT_EQ(heap_state.cached_groups, c.one_group_runs - c.oldest_evicted);
    for (uint32_t i = 0; i < c.one_group_runs; ++i)
        EXPECT_EQ(group_claimed(FIRST_TEST_GROUP + i), i >= c.oldest_evicted) << i;
    EXPECT_FALSE(group_claimed(LONG_FIRST) || group_claimed(LONG_FIRST + LONG_LENGTH - 1));
    // The lists, the counts of runs by length and the bitmap agree: each evicted run was
    // released with its own length.
    audit_finding finding{};
    EXPECT_TRUE(audit_heap(finding)) << finding.broken << " at " << finding.at;
}

// A trim keeps 118 groups of short runs, and evicts the oldest one when nothing else went; long
// runs go first; a flush evicts everything.
const eviction_case EVICTIONS[] = {{118, false, false, 1},
                                   {200, false, false, 82},
                                   {50, true, false, 0},
                                   {130, true, false, 12},
                                   {30, true, true, 30}};

INSTANTIATE_TEST_SUITE_P(rules, run_cache_eviction, ::testing::ValuesIn(EVICTIONS),
                         [](const auto& info) {
                             const eviction_case& c = info.param;
                             return std::to_string(c.one_group_runs) + "_short" +
                                    (c.with_long_run ? "_and_a_long" : "") +
                                    (c.flush ? "_flush" : "_trim") + "_evicts_" +
                                    std::to_string(c.oldest_evicted);
                         });

}  // namespace
}  // namespace tarnheap::testing
