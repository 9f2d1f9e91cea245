// The members of each tier, by multiplier, from which tier_member fills the finder table.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "runs/run_search_state.h"

namespace tarnheap {

// A tier's members for multipliers FIRST .. FIRST + COUNT - 1, looked up by multiplier.
template <unsigned FIRST, size_t COUNT>
struct member_table {
    run_finder member[COUNT];

    constexpr run_finder operator[](unsigned multiplier) const {
        return member[multiplier - FIRST];
    }
};

// Instantiates a tier's finder template for every multiplier: `pick` maps an
// std::integral_constant holding the multiplier to that member's address.
template <unsigned FIRST, size_t COUNT, typename Pick>
constexpr member_table<FIRST, COUNT> tier_members(Pick pick) {
    return [&]<size_t... I>(std::index_sequence<I...>) {
        return member_table<FIRST, COUNT>{{pick(std::integral_constant<unsigned, FIRST + I>{})...}};
    }
    (std::make_index_sequence<COUNT>{});
}

// Runs of k = 2 .. 63 bits at any bit. Each member exists twice: for the baseline instruction
// set and for processors with POPCNT.
run_finder bit_run_member(unsigned k, bool use_popcnt);

// Runs of 8j bits on byte boundaries, j = 8 .. 63.
run_finder byte_run_member(unsigned j);

// Runs of 64j bits on word boundaries, j = 8 .. 63.
run_finder word_run_member(unsigned j);

// Runs of k 512-bit blocks, k = 8 .. 64: thin entries to block_run_finder.
run_finder block_run_member(unsigned k);

}  // namespace tarnheap
