// Picks each tier's member for the finder table; called at initialisation only.
#include <cpuid.h>

#include "runs/run_finder_table.h"
#include "runs/tier_tables.h"

namespace tarnheap {

bool processor_has_popcnt() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_POPCNT) != 0;
}

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
