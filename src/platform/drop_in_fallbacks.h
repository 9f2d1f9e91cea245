// The C library's entries that only the Linux drop-in hands requests to: the aligned
// allocators, for alignments the heap's blocks do not have, and the usable size of its blocks.
// load_fallbacks fills them with the heap's own four fallbacks, in the drop-in only; a missing
// name leaves its entry null.
#pragma once

#include <cstddef>

namespace tarnheap {

struct drop_in_fallbacks_record {
    size_t (*malloc_usable_size)(void*);
    int (*posix_memalign)(void**, size_t, size_t);
    void* (*valloc)(size_t);
    void* (*pvalloc)(size_t);
};

extern drop_in_fallbacks_record drop_in_fallbacks;

}  // namespace tarnheap
