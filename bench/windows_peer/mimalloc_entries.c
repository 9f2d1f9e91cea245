/* The standard entry points of a Windows workload driver served by a static mimalloc, so that
 * TARNHEAP.dll can be measured against a strong allocator on Windows as on Linux. Defined in
 * the executable, they take precedence over the C runtime's for every call the program makes. */
#include <mimalloc.h>
#include <stddef.h>

void* malloc(size_t size) {
    return mi_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return mi_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    return mi_realloc(block, size);
}

void free(void* block) {
    mi_free(block);
}
