#include "small/usable_size.h"

#include <cstring>

#include "bucket/bucket_release.h"
#include "small/release.h"

namespace tarnheap {

uint64_t usable_size(uint64_t address) {
    uint32_t group;
    if (group_descriptor_record* descriptor = in_use_descriptor(address, &group)) {
        if (descriptor->bucket.unit_size != 0) return descriptor->bucket.unit_size;
        // A descriptor that is neither a group nor a run means a block the heap does not own.
        if (descriptor->large.run_groups == 0) return 0;
        return descriptor->large.run_groups * GROUP_BYTES -
               (address - descriptor->large.group_base);
    }
    if (in_bootstrap_arena(address)) {
        uint64_t piece;
        std::memcpy(&piece, reinterpret_cast<void*>(address - BOOTSTRAP_HEADER), sizeof piece);
        return piece - BOOTSTRAP_HEADER;
    }
    uint64_t zeroed_offset;
    if (!in_zeroed_region(address, &zeroed_offset)) return 0;
    return uint64_t{heap_state.zeroed_run_length[zeroed_offset >> ZEROED_SLOT_SHIFT]}
           << ZEROED_SLOT_SHIFT;
}

}  // namespace tarnheap
