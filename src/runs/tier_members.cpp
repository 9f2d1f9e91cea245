// Picks each tier's member for the finder table; called at initialisation only.
#include "platform/processor.h"
#include "runs/run_finder_table.h"
#include "runs/tier_tables.h"

namespace tarnheap {

run_finder tier_member(unsigned tier, unsigned j) {
    switch (tier) {
        case 0:
            return bit_run_member(j, processor_has_popcnt());
        case 1:
            return byte_run_member(j);
        case 2:
            return word_run_member(j);
        default:
            return block_run_member(j);
    }
}

}  // namespace tarnheap
