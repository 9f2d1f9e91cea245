// The rounding of a run of groups to a run length that has its own finder and cache list.
//
// One finder per length up to 32768 groups would be 32768 functions; instead lengths are
// rounded up to a coarser step as they grow (1, 8, 64 and 512 groups), giving 63 + 56 + 56 + 57
// distinct lengths. Allocation rounds a request with this table and release files a run under
// the entry it was allocated with, so both use it and nothing else.
#pragma once

#include <cstdint>

#include "state/compiler.h"

namespace tarnheap {

struct run_length_tier {
    uint32_t longest;     // longest run, in groups, rounded at this tier
    uint32_t step_shift;  // rounding step in groups: 1 << step_shift
    uint32_t entry_base;  // a run of k steps is entry entry_base + k
};

inline constexpr run_length_tier RUN_LENGTH_TIERS[] = {
    {63, 0, 0},
    {504, 3, 64},
    {4032, 6, 128},
    {32768, 9, 192},
};

// Longer runs are claimed by the generic finder, never cached, and released at once.
inline constexpr uint32_t LONGEST_TABLE_RUN = RUN_LENGTH_TIERS[3].longest;

struct run_length_choice {
    uint64_t groups;  // the rounded length
    unsigned entry;   // its run_length_table entry; 0 for runs beyond LONGEST_TABLE_RUN
};

template <unsigned TIER>
TARNHEAP_HOT constexpr run_length_choice run_length_at(uint64_t groups) {
    constexpr run_length_tier tier = RUN_LENGTH_TIERS[TIER];
    uint64_t steps = (groups + (uint64_t{1} << tier.step_shift) - 1) >> tier.step_shift;
    return {steps << tier.step_shift, static_cast<unsigned>(tier.entry_base + steps)};
}

// Every tier's step a constant: allocation and release round on every large block.
TARNHEAP_HOT constexpr run_length_choice run_length_for(uint64_t groups) {
    if (groups <= RUN_LENGTH_TIERS[0].longest) return run_length_at<0>(groups);
    if (groups <= RUN_LENGTH_TIERS[1].longest) return run_length_at<1>(groups);
    if (groups <= RUN_LENGTH_TIERS[2].longest) return run_length_at<2>(groups);
    if (groups <= RUN_LENGTH_TIERS[3].longest) return run_length_at<3>(groups);
    return {groups, 0};
}

// Emptied bucket groups and one-group blocks share this entry's cache list.
inline constexpr unsigned ONE_GROUP_ENTRY = 1;

constexpr bool operator==(run_length_choice a, run_length_choice b) {
    return a.groups == b.groups && a.entry == b.entry;
}

static_assert(run_length_for(1) == run_length_choice{1, ONE_GROUP_ENTRY});
static_assert(run_length_for(63) == run_length_choice{63, 63});
static_assert(run_length_for(64) == run_length_choice{64, 72});
static_assert(run_length_for(149) == run_length_choice{152, 83});
static_assert(run_length_for(504) == run_length_choice{504, 127});
static_assert(run_length_for(505) == run_length_choice{512, 136});
static_assert(run_length_for(4032) == run_length_choice{4032, 191});
static_assert(run_length_for(4033) == run_length_choice{4096, 200});
static_assert(run_length_for(LONGEST_TABLE_RUN) == run_length_choice{32768, 256});
static_assert(run_length_for(LONGEST_TABLE_RUN + 1) == run_length_choice{32769, 0});

// Every rounded length is filed under the entry whose finder claims exactly that many groups
// (entry s serves (s mod 64) * 8^(s / 64), entry 256 serves 32768), and rounding is idempotent,
// so a released run lands in the list that allocation of the same request looks in.
static_assert([] {
    for (uint64_t groups = 1; groups <= LONGEST_TABLE_RUN; ++groups) {
        run_length_choice choice = run_length_for(groups);
        uint64_t served =
            choice.entry == 256 ? 32768 : (choice.entry % 64) << (3 * (choice.entry / 64));
        if (served != choice.groups || !(run_length_for(choice.groups) == choice)) return false;
    }
    return true;
}());

}  // namespace tarnheap
