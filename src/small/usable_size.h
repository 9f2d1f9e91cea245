// How many bytes a block the heap handed out can hold, read from its address alone by the same
// area tests as release: resize decides with it whether a block stays, and the Linux drop-in's
// malloc_usable_size answers with it. Inline, so that resize keeps it on its own path.
#pragma once

#include <cstdint>
#include <cstring>

#include "bucket/bucket_release.h"
#include "small/release.h"
#include "small/small_class.h"
#include "state/heap_state.h"

namespace tarnheap {

// A small block's usable size is its class's block size.
inline uint64_t small_usable_size(unsigned small_class) {
    return 4 * uint64_t{heap_state.small_class_head[small_class].units};
}

// The usable size of a block outside the small classes, 0 when the heap does not own it.
inline uint64_t usable_size_outside_small(uint64_t address) {
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

// The usable size of any block the heap owns, 0 for every other address.
inline uint64_t usable_size(uint64_t address) {
    int small_class = small_class_owning(address);
    if (small_class >= 0) return small_usable_size(static_cast<unsigned>(small_class));
    return usable_size_outside_small(address);
}

}  // namespace tarnheap
