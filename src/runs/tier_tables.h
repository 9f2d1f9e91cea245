// The members of each tier, by multiplier, from which tier_member fills the finder table.
#pragma once

#include "runs/run_search_state.h"

namespace tarnheap {

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
