// The run cache on its own: which runs a trim and a flush evict, and the length and age lists
// kept true over random sequences of puts and takes, checked against a plain model.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

#include "bucket/run_cache.h"
#include "bucket/run_length.h"
#include "runs/run_finder_table.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

// Runs used here start well above the groups of the initial warm-up.
constexpr uint32_t FIRST_TEST_GROUP = 1000;

bool group_claimed(uint64_t group) {
    return (heap_state.group_bitmap[group / 8] >> (group % 8)) & 1;
}

class run_cache : public fresh_heap {
  protected:
    void SetUp() override {
        fresh_heap::SetUp();
        start_heap();
    }

    // Claims a run in the group bitmap as a finder would, and caches it as a released run.
    void put(uint32_t first, uint32_t length) {
        for (uint32_t g = first; g < first + length; ++g)
            heap_state.group_bitmap[g / 8] |= static_cast<uint8_t>(1u << (g % 8));
        ++run_count(heap_state.group_search_state, run_length_class(length));
        cache_put(heap_state.group_descriptor[first], length, run_length_for(length).entry);
    }

    // One-group runs at consecutive groups, cached in order (the first is the oldest).
    void put_one_group_runs(uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) put(FIRST_TEST_GROUP + i, 1);
    }
};

struct trim_case {
    uint32_t one_group_runs;
    bool with_long_run;
    uint32_t oldest_evicted;  // one-group runs evicted, oldest first
};

std::ostream& operator<<(std::ostream& out, const trim_case& c) {
    return out << c.one_group_runs << " one-group runs"
               << (c.with_long_run ? " and a long one" : "");
}

class run_cache_trim : public run_cache, public ::testing::WithParamInterface<trim_case> {};

TEST_P(run_cache_trim, evicts_long_runs_then_short_ones_oldest_first) {
    const trim_case& c = GetParam();
    put_one_group_runs(c.one_group_runs);
    constexpr uint32_t LONG_FIRST = 20000, LONG_LENGTH = 2048;
    if (c.with_long_run) put(LONG_FIRST, LONG_LENGTH);
    cache_trim();
    uint32_t kept = c.one_group_runs - c.oldest_evicted;
    EXPECT_EQ(heap_state.cached_groups, kept);
    EXPECT_EQ(heap_state.long_runs_first, nullptr);
    EXPECT_EQ(heap_state.long_runs_last, nullptr);
    if (c.with_long_run) {
        EXPECT_FALSE(group_claimed(LONG_FIRST));
        EXPECT_FALSE(group_claimed(LONG_FIRST + LONG_LENGTH - 1));
    }
    for (uint32_t i = 0; i < c.one_group_runs; ++i)
        EXPECT_EQ(group_claimed(FIRST_TEST_GROUP + i), i >= c.oldest_evicted) << i;
    if (kept > 0)
        EXPECT_EQ(heap_state.short_runs_first,
                  &heap_state.group_descriptor[FIRST_TEST_GROUP + c.oldest_evicted]);
    else
        EXPECT_EQ(heap_state.short_runs_first, nullptr);
}

INSTANTIATE_TEST_SUITE_P(rules, run_cache_trim,
                         ::testing::Values(trim_case{0, false, 0}, trim_case{1, false, 1},
                                           trim_case{100, false, 1}, trim_case{118, false, 1},
                                           trim_case{119, false, 1}, trim_case{120, false, 2},
                                           trim_case{200, false, 82}, trim_case{50, true, 0},
                                           trim_case{130, true, 12}, trim_case{0, true, 0}));

TEST_F(run_cache, a_flush_evicts_everything) {
    const run_search_state before = heap_state.group_search_state;
    put_one_group_runs(30);
    put(5000, 64);
    put(9000, 1920);
    put(20000, 4096);
    cache_flush();
    EXPECT_EQ(heap_state.cached_groups, 0u);
    EXPECT_EQ(heap_state.short_runs_first, nullptr);
    EXPECT_EQ(heap_state.long_runs_first, nullptr);
    for (const run_length_entry& entry : heap_state.run_length_table)
        EXPECT_EQ(entry.cached_runs, nullptr);
    for (uint32_t g :
         {FIRST_TEST_GROUP, FIRST_TEST_GROUP + 29, 5000u, 5063u, 9000u, 10919u, 20000u, 24095u})
        EXPECT_FALSE(group_claimed(g)) << g;
    // Each evicted run was released with its own length.
    for (unsigned c = 0; c < RUN_CLASS_COUNT; ++c)
        EXPECT_EQ(heap_state.group_search_state.run_counts[c], before.run_counts[c]) << c + 1;
}

// The plain model of the cache: every cached run, in the order in which it was put.
struct model_run {
    uint32_t first;
    uint32_t length;
};

using run_link = group_descriptor_record* cached_run_view::*;

// Checks a list against the runs expected on it, in order, through both of its links, and
// returns its last run.
group_descriptor_record* expect_list(group_descriptor_record* at,
                                     const std::vector<model_run>& runs, run_link next,
                                     run_link prev) {
    group_descriptor_record* previous = nullptr;
    for (const model_run& run : runs) {
        EXPECT_EQ(at, &heap_state.group_descriptor[run.first]);
        if (at != &heap_state.group_descriptor[run.first]) return nullptr;
        EXPECT_EQ(at->cached.*prev, previous);
        previous = std::exchange(at, at->cached.*next);
    }
    EXPECT_EQ(at, nullptr);
    return previous;
}

void expect_lists_match(const std::vector<model_run>& model) {
    uint64_t groups = 0;
    std::vector<std::vector<model_run>> by_entry(RUN_LENGTH_ENTRIES), by_age(2);
    for (const model_run& run : model) {
        groups += run.length;
        unsigned entry = run_length_for(run.length).entry;
        // Length lists are newest first, age lists oldest first.
        by_entry[entry].insert(by_entry[entry].begin(), run);
        by_age[run.length >= LONG_RUN_MIN].push_back(run);
        const cached_run_view& view = heap_state.group_descriptor[run.first].cached;
        EXPECT_EQ(view.run_groups, run.length);
        EXPECT_EQ(view.first_group, run.first);
        EXPECT_EQ(view.length_list, &heap_state.run_length_table[entry].cached_runs);
    }
    EXPECT_EQ(heap_state.cached_groups, groups);
    for (unsigned entry = 0; entry < RUN_LENGTH_ENTRIES; ++entry)
        expect_list(heap_state.run_length_table[entry].cached_runs, by_entry[entry],
                    &cached_run_view::length_next, &cached_run_view::length_prev);
    EXPECT_EQ(expect_list(heap_state.short_runs_first, by_age[0], &cached_run_view::age_next,
                          &cached_run_view::age_prev),
              heap_state.short_runs_last);
    EXPECT_EQ(expect_list(heap_state.long_runs_first, by_age[1], &cached_run_view::age_next,
                          &cached_run_view::age_prev),
              heap_state.long_runs_last);
}

TEST_F(run_cache, random_puts_and_takes_keep_both_lists_true) {
    std::mt19937 random(7);
    // A few lengths per entry and on both sides of the long-run threshold.
    const uint32_t lengths[] = {1, 1, 1, 2, 7, 63, 64, 65, 72, 504, 1899, 1900, 2048, 4033, 32768};
    std::vector<model_run> model;
    std::vector<uint32_t> idle;  // first groups free to carry a run
    for (uint32_t g = FIRST_TEST_GROUP; g < FIRST_TEST_GROUP + 400; ++g) idle.push_back(g);
    for (int step = 0; step < 20000; ++step) {
        unsigned action = random() % 4;
        if (action < 2 && !idle.empty()) {
            size_t pick = random() % idle.size();
            uint32_t length = lengths[random() % std::size(lengths)];
            // Runs overlap here, which the cache never looks at: only descriptors are linked.
            cache_put(heap_state.group_descriptor[idle[pick]], length,
                      run_length_for(length).entry);
            model.push_back({idle[pick], length});
            idle[pick] = idle.back();
            idle.pop_back();
        } else if (!model.empty()) {
            size_t pick = random() % model.size();
            // Reuse takes a list's head; any other run leaves by eviction, wherever it is.
            group_descriptor_record* run = &heap_state.group_descriptor[model[pick].first];
            if (action == 2)
                run = heap_state.run_length_table[run_length_for(model[pick].length).entry]
                          .cached_runs;
            auto taken = std::find_if(model.begin(), model.end(), [&](const model_run& m) {
                return &heap_state.group_descriptor[m.first] == run;
            });
            cache_take(*run);
            idle.push_back(taken->first);
            model.erase(taken);
        }
        expect_lists_match(model);
        if (HasFailure()) return;
    }
}

}  // namespace
}  // namespace tarnheap::testing
