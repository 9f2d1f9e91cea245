// mimalloc's own entry points, for the Windows replayer linked with its static library.
#pragma once

#include <mimalloc.h>

namespace trace {

struct mimalloc_heap {
    static void* malloc(size_t bytes) { return mi_malloc(bytes); }
    static void* calloc(size_t count, size_t bytes) { return mi_calloc(count, bytes); }
    static void* realloc(void* block, size_t bytes) { return mi_realloc(block, bytes); }
    static void free(void* block) { mi_free(block); }
    static int posix_memalign(void** out, size_t alignment, size_t bytes) {
        return mi_posix_memalign(out, alignment, bytes);
    }
    static void* aligned_alloc(size_t alignment, size_t bytes) {
        return mi_aligned_alloc(alignment, bytes);
    }
    static void* memalign(size_t alignment, size_t bytes) { return mi_memalign(alignment, bytes); }
    static void* valloc(size_t bytes) { return mi_valloc(bytes); }
    static void* pvalloc(size_t bytes) { return mi_pvalloc(bytes); }
    static void* reallocarray(void* block, size_t count, size_t bytes) {
        return mi_reallocarray(block, count, bytes);
    }
};

}  // namespace trace
