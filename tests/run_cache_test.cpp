// The run cache on its own: which runs a trim and a flush evict, and the length and age lists
// kept true over random sequences of puts and takes, checked against a plain model.
#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bucket/run_cache.h"
#include "runs/run_finder_table.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

// Runs used here start well above the groups of the initial warm-up.
constexpr uint32_t FIRST_TEST_GROUP = 1000;

// The run_counts class of a run of groups: its entry less one per tier below its own.
unsigned length_class(uint32_t groups) {
    return run_entry(groups) - (groups > 63) - (groups > 504) - (groups > 4032);
}

bool group_claimed(uint64_t group) {
    return (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
}

class run_cache : public fresh_heap {
  protected:
    void SetUp() override { start_heap(); }

    // Claims a run in the group bitmap as a finder would, and caches it as a released run.
    void put(uint32_t first, uint32_t length) {
        for (uint32_t g = first; g < first + length; ++g)
            heap_state.group_bitmap[g / 8] |= static_cast<uint8_t>(1u << (g % 8));
        ++run_count(heap_state.group_search_state, length_class(length));
        cache_put(heap_state.group_descriptor[first], length, run_entry(length));
    }
};

struct eviction_case {
    uint32_t one_group_runs;  // cached first, oldest first
    bool with_long_run;       // cached last
    bool flush;               // rather than a trim
    uint32_t oldest_evicted;  // one-group runs evicted
};

class run_cache_eviction : public run_cache, public ::testing::WithParamInterface<eviction_case> {};

TEST_P(run_cache_eviction, evicts_long_runs_then_short_ones_oldest_first) {
    const eviction_case& c = GetParam();
    const run_search_state before = heap_state.group_search_state;
    for (uint32_t i = 0; i < c.one_group_runs; ++i) put(FIRST_TEST_GROUP + i, 1);
    // The shortest long run a block can have: 1900 groups round up to it.
    constexpr uint32_t LONG_FIRST = 20000, LONG_LENGTH = 1920;
    if (c.with_long_run) put(LONG_FIRST, LONG_LENGTH);
    c.flush ? cache_flush() : cache_trim();

    uint32_t kept = c.one_group_runs - c.oldest_evicted;
    EXPECT_EQ(heap_state.cached_groups, kept);
    for (uint32_t i = 0; i < c.one_group_runs; ++i)
        EXPECT_EQ(group_claimed(FIRST_TEST_GROUP + i), i >= c.oldest_evicted) << i;
    EXPECT_FALSE(group_claimed(LONG_FIRST) || group_claimed(LONG_FIRST + LONG_LENGTH - 1));
    EXPECT_EQ(heap_state.short_runs_first,
              kept ? &heap_state.group_descriptor[FIRST_TEST_GROUP + c.oldest_evicted] : nullptr);
    EXPECT_EQ(
        heap_state.run_length_table[1].cached_runs,
        kept ? &heap_state.group_descriptor[FIRST_TEST_GROUP + c.one_group_runs - 1] : nullptr);
    EXPECT_EQ(heap_state.long_runs_first, nullptr);
    EXPECT_EQ(heap_state.long_runs_last, nullptr);
    EXPECT_EQ(heap_state.run_length_table[run_entry(LONG_LENGTH)].cached_runs, nullptr);
    // Each evicted run was released with its own length.
    run_search_state expected = before;
    run_count(expected, 1) += kept;
    EXPECT_EQ(std::memcmp(expected.run_counts, heap_state.group_search_state.run_counts,
                          sizeof expected.run_counts),
              0);
}

// A trim keeps 118 groups of short runs, and evicts the oldest one when nothing else went; a
// flush evicts everything.
INSTANTIATE_TEST_SUITE_P(
    rules, run_cache_eviction,
    ::testing::Values(eviction_case{0, false, false, 0}, eviction_case{1, false, false, 1},
                      eviction_case{118, false, false, 1}, eviction_case{119, false, false, 1},
                      eviction_case{120, false, false, 2}, eviction_case{200, false, false, 82},
                      eviction_case{50, true, false, 0}, eviction_case{130, true, false, 12},
                      eviction_case{0, true, false, 0}, eviction_case{30, true, true, 30},
                      eviction_case{200, false, true, 200}),
    [](const auto& info) {
        const eviction_case& c = info.param;
        return std::to_string(c.one_group_runs) + "_short" +
               (c.with_long_run ? "_and_a_long" : "") + (c.flush ? "_flush" : "_trim") +
               "_evicts_" + std::to_string(c.oldest_evicted);
    });

// The plain model of the cache: every cached run, in the order in which it was put.
struct model_run {
    uint32_t first, length;
};

// The first groups of a length list's (or age list's) runs, in order, checking each back link;
// `last` gets its last run.
std::vector<uint32_t> walk(group_descriptor_record* at, bool length_list,
                           group_descriptor_record*& last) {
    auto next = length_list ? &cached_run_view::length_next : &cached_run_view::age_next;
    auto prev = length_list ? &cached_run_view::length_prev : &cached_run_view::age_prev;
    std::vector<uint32_t> firsts;
    // The bound stops a list that a fault closed into a loop.
    for (last = nullptr; at != nullptr && firsts.size() <= 1000;
         last = std::exchange(at, at->cached.*next)) {
        EXPECT_EQ(at->cached.*prev, last);
        firsts.push_back(static_cast<uint32_t>(at - heap_state.group_descriptor));
    }
    return firsts;
}

void expect_cache_matches(const std::vector<model_run>& model) {
    uint64_t groups = 0;
    std::vector<std::vector<uint32_t>> by_entry(257), by_age(2);
    for (const model_run& run : model) {
        groups += run.length;
        unsigned entry = run_entry(run.length);
        // Length lists are newest first, age lists oldest first.
        by_entry[entry].insert(by_entry[entry].begin(), run.first);
        by_age[run.length >= 1900].push_back(run.first);
        const cached_run_view& view = heap_state.group_descriptor[run.first].cached;
        EXPECT_EQ(view.run_groups, run.length);
        EXPECT_EQ(view.first_group, run.first);
        EXPECT_EQ(view.length_list, &heap_state.run_length_table[entry].cached_runs);
    }
    EXPECT_EQ(heap_state.cached_groups, groups);
    group_descriptor_record* last;
    for (unsigned entry = 0; entry < 257; ++entry)
        EXPECT_EQ(walk(heap_state.run_length_table[entry].cached_runs, true, last), by_entry[entry])
            << "entry " << entry;
    EXPECT_EQ(walk(heap_state.short_runs_first, false, last), by_age[0]);
    EXPECT_EQ(last, heap_state.short_runs_last);
    EXPECT_EQ(walk(heap_state.long_runs_first, false, last), by_age[1]);
    EXPECT_EQ(last, heap_state.long_runs_last);
}

TEST_F(run_cache, random_puts_and_takes_keep_both_lists_true) {
    std::mt19937 random(7);
    // A few lengths per entry and on both sides of the long-run threshold.
    const uint32_t lengths[] = {1, 1, 1, 2, 7, 63, 64, 65, 72, 504, 1899, 1900, 2048, 4033, 32768};
    std::vector<model_run> model;
    std::vector<uint32_t> idle;  // first groups free to carry a run
    for (uint32_t g = FIRST_TEST_GROUP; g < FIRST_TEST_GROUP + 400; ++g) idle.push_back(g);
    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
        unsigned action = random() % 4;
        if (action < 2 && !idle.empty()) {
            size_t pick = random() % idle.size();
            uint32_t length = lengths[random() % std::size(lengths)];
            // Runs overlap here, which the cache never looks at: only descriptors are linked.
            cache_put(heap_state.group_descriptor[idle[pick]], length, run_entry(length));
            model.push_back({idle[pick], length});
            idle[pick] = idle.back();
            idle.pop_back();
        } else if (!model.empty()) {
            // Reuse takes a list's head; any other run leaves by eviction, wherever it is.
            const model_run& picked = model[random() % model.size()];
            uint32_t first = picked.first;
            if (action == 2) {
                unsigned entry = run_entry(picked.length);
                first = uint32_t(heap_state.run_length_table[entry].cached_runs -
                                 heap_state.group_descriptor);
            }
            cache_take(heap_state.group_descriptor[first]);
            idle.push_back(first);
            std::erase_if(model, [first](const model_run& m) { return m.first == first; });
        }
        expect_cache_matches(model);
    }
}

}  // namespace
}  // namespace tarnheap::testing
