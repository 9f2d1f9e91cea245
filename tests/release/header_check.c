/* Compiled, never run: tarnheap.h beside the C library's declarations of the same functions,
 * included before or after them, as C and as C++, with and without TARNHEAP_EMBED. */
#ifdef TARNHEAP_FIRST
#include "tarnheap.h"
#endif
#include <stdlib.h>
#ifdef __linux__
#include <malloc.h>
#endif
#ifndef TARNHEAP_FIRST
#include "tarnheap.h"
#endif

int header_check(void);

int header_check(void) {
    free(realloc(calloc(2, 8), 32));
#ifdef TARNHEAP_EMBED
    tarnheap_free(tarnheap_realloc(tarnheap_calloc(2, 8), 32));
    tarnheap_free(tarnheap_malloc(8));
    return tarnheap_mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
#else
    free(malloc(8));
    return mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
#endif
}
