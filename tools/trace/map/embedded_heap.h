// The embeddable library's entry points, as the replay calls them. The heap has no aligned
// entry points: as with the preloaded library, those requests go to the C library, and free
// hands such blocks back to it.
#pragma once

#include <malloc.h>

#include <cstdint>
#include <cstdlib>

#include "tarnheap.h"

namespace trace {

struct embedded_heap {
    static void* malloc(size_t bytes) { return tarnheap_malloc(bytes); }
    static void* calloc(size_t count, size_t bytes) { return tarnheap_calloc(count, bytes); }
    static void* realloc(void* block, size_t bytes) { return tarnheap_realloc(block, bytes); }
    static void free(void* block) { tarnheap_free(block); }
    static int posix_memalign(void** out, size_t alignment, size_t bytes) {
        return ::posix_memalign(out, alignment, bytes);
    }
    static void* aligned_alloc(size_t alignment, size_t bytes) {
        return ::aligned_alloc(alignment, bytes);
    }
    static void* memalign(size_t alignment, size_t bytes) { return ::memalign(alignment, bytes); }
    static void* valloc(size_t bytes) { return ::valloc(bytes); }
    static void* pvalloc(size_t bytes) { return ::pvalloc(bytes); }
    static void* reallocarray(void* block, size_t count, size_t bytes) {
        size_t total;
        if (__builtin_mul_overflow(count, bytes, &total)) return nullptr;
        return tarnheap_realloc(block, total);
    }
};

}  // namespace trace
