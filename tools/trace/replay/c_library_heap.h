// The heap of the C library the replayer runs on: glibc's or whichever allocator is preloaded
// on Linux, the C runtime's or TARNHEAP.dll on Windows (whichever the replayer is linked with).
//
// Windows has no posix_memalign family whose blocks free() accepts, nor reallocarray: there
// aligned requests are made as malloc of the same size, and reallocarray as realloc of the
// product (the front-end reports the aligned ones as expected differences).
#pragma once

#include <cstdint>
#include <cstdlib>

#ifndef _WIN32
#include <malloc.h>
#endif

namespace trace {

struct c_library_heap {
    static void* malloc(size_t bytes) { return std::malloc(bytes); }
    static void* calloc(size_t count, size_t bytes) { return std::calloc(count, bytes); }
    static void* realloc(void* block, size_t bytes) { return std::realloc(block, bytes); }
    static void free(void* block) { std::free(block); }
#ifdef _WIN32
    static int posix_memalign(void** out, size_t, size_t bytes) {
        *out = std::malloc(bytes);
        return *out == nullptr;
    }
    static void* aligned_alloc(size_t, size_t bytes) {
        return std::malloc(bytes);
    }
    static void* memalign(size_t, size_t bytes) {
        return std::malloc(bytes);
    }
    static void* valloc(size_t bytes) {
        return std::malloc(bytes);
    }
    static void* pvalloc(size_t bytes) {
        return std::malloc(bytes);
    }
    static void* reallocarray(void* block, size_t count, size_t bytes) {
        size_t total;
        return __builtin_mul_overflow(count, bytes, &total) ? nullptr : std::realloc(block, total);
    }
#else
    static int posix_memalign(void** out, size_t alignment, size_t bytes) {
        return ::posix_memalign(out, alignment, bytes);
    }
    static void* aligned_alloc(size_t alignment, size_t bytes) {
        return ::aligned_alloc(alignment, bytes);
    }
    static void* memalign(size_t alignment, size_t bytes) {
        return ::memalign(alignment, bytes);
    }
    static void* valloc(size_t bytes) {
        return ::valloc(bytes);
    }
    static void* pvalloc(size_t bytes) {
        return ::pvalloc(bytes);
    }
    static void* reallocarray(void* block, size_t count, size_t bytes) {
        return ::reallocarray(block, count, bytes);
    }
#endif
};

}  // namespace trace
