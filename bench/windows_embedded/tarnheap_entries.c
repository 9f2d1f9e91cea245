/* The standard entry points of a Windows workload driver served by the embeddable library
 * linked into the program: the same heap as TARNHEAP.dll, called directly rather than through
 * the DLL's import table, so that the cost of that call can be told apart from the heap's own.
 * Defined in the executable, they take precedence over the C runtime's for every call the
 * program makes. */
#include <stddef.h>
#include <tarnheap.h>

void* malloc(size_t size) {
    return tarnheap_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return tarnheap_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    return tarnheap_realloc(block, size);
}

void free(void* block) {
    tarnheap_free(block);
}
