/* TarnHeap: a single-threaded replacement heap.
 *
 * TARNHEAP.dll and libtarnheap.so export malloc, calloc, realloc, free and mallopt under their
 * standard names; libtarnheap.so, which Linux programs preload, also exports glibc's other
 * allocation functions and answers as glibc does where programs rely on it (see the README).
 * The C library's headers declare the standard names, which compilers know as allocation
 * functions; this header declares mallopt on Windows, whose C runtime lacks it (on Linux,
 * <malloc.h> declares it). The embeddable static library (define TARNHEAP_EMBED before
 * including this header) names them tarnheap_malloc, tarnheap_calloc, tarnheap_realloc,
 * tarnheap_free and tarnheap_mallopt, so that a program keeps its own malloc beside them. */
#ifndef TARNHEAP_H
#define TARNHEAP_H

#include <stddef.h>

/* mallopt(TARNHEAP_M_ROUTING, value): how requests of 1 to 64 bytes map to small classes.
 * TARNHEAP_ROUTING_FINE serves every size at its own multiple of 4 bytes; any other value
 * restores the coarse default of 4, 8, 16, 32, 48 or 64 bytes. Answers 1. */
#define TARNHEAP_M_ROUTING 3225
#define TARNHEAP_ROUTING_FINE 0
#define TARNHEAP_ROUTING_COARSE 1

/* mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE) answers TARNHEAP_PROBE_ANSWER, so that a program
 * can tell whether this library serves its heap. Every other call answers 0. */
#define TARNHEAP_M_PROBE 57005
#define TARNHEAP_PROBE_VALUE 48879
#define TARNHEAP_PROBE_ANSWER 2989

/* What compilers may assume of the allocating entry points: a new block aliases nothing, its size
 * is the argument (or the product of both), and dropping the result leaks it. realloc may hand
 * back the block it was given, so it is not marked as returning a new block. */
#if defined(_MSC_VER)
#define TARNHEAP_MS_NEW __declspec(allocator) __declspec(restrict)
#define TARNHEAP_MS_RESIZED __declspec(allocator)
#else
#define TARNHEAP_MS_NEW
#define TARNHEAP_MS_RESIZED
#endif
#if defined(__GNUC__) || defined(__clang__)
#define TARNHEAP_NEW_BLOCK(size) \
    TARNHEAP_MS_NEW __attribute__((__malloc__, __alloc_size__(size), __warn_unused_result__))
#define TARNHEAP_NEW_ARRAY(count, size) \
    TARNHEAP_MS_NEW                     \
    __attribute__((__malloc__, __alloc_size__(count, size), __warn_unused_result__))
#define TARNHEAP_RESIZED_BLOCK(size) \
    TARNHEAP_MS_RESIZED __attribute__((__alloc_size__(size), __warn_unused_result__))
#else
#define TARNHEAP_NEW_BLOCK(size) TARNHEAP_MS_NEW
#define TARNHEAP_NEW_ARRAY(count, size) TARNHEAP_MS_NEW
#define TARNHEAP_RESIZED_BLOCK(size) TARNHEAP_MS_RESIZED
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifdef TARNHEAP_EMBED
TARNHEAP_NEW_BLOCK(1) void* tarnheap_malloc(size_t size);
TARNHEAP_NEW_ARRAY(1, 2) void* tarnheap_calloc(size_t count, size_t size);
TARNHEAP_RESIZED_BLOCK(2) void* tarnheap_realloc(void* block, size_t size);
void tarnheap_free(void* block);
int tarnheap_mallopt(int option, int value);
#elif defined(_WIN32)
int mallopt(int option, int value);
#endif

#ifdef __cplusplus
}
#endif

#endif
