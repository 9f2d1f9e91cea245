#include "runs/run_finder_table.h"

namespace tarnheap {

void build_run_finder_table(run_finder_slot* table) {
    table[0].fixed = one_bit_finder;
    table[1].fixed = one_bit_finder;
    for (unsigned slot = 2; slot < 256; ++slot) {
        unsigned tier = slot / 64, j = slot % 64;
        // Above tier 0, a multiplier below 8 is a length the tier below already serves: share
        // its member.
        if (tier > 0 && j < 8)
            table[slot] = table[slot - 64 + 7 * j];
        else
            table[slot].fixed = tier_member(tier, j);
    }
    table[256].fixed = tier_member(3, 64);
    table[GENERIC_SLOT].generic = generic_block_finder;
}

}  // namespace tarnheap
