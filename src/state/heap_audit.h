// The heap's self-check: a walk over heap_state that reports the first invariant it finds
// broken. It allocates nothing and prints nothing; what it found is handed back in a record.
// It reads every committed bitmap and every group descriptor, so it is for tests and
// investigations, never for the allocation paths.
#pragma once

#include <cstdint>

namespace tarnheap {

struct audit_finding {
    const char* broken;  // the invariant, in words; null while none is broken
    uint64_t at;         // the class, group, entry or address where it broke
    uint64_t expected;
    uint64_t found;
};

// Asked for every range of bytes that the heap holds as free although it keeps it claimed (a
// block on a free-index stack, a free unit of a bucket group, a cached run, a free slot of the
// zeroed region): true when one of the caller's live blocks overlaps [first, end).
using live_overlap_check = bool (*)(void* context, uint64_t first, uint64_t end);

// True when every invariant holds. Otherwise false, with the first broken one in `finding`.
// `overlaps_live` may be null: the free ranges are then not compared with live blocks.
bool audit_heap(audit_finding& finding, live_overlap_check overlaps_live = nullptr,
                void* context = nullptr);

}  // namespace tarnheap
