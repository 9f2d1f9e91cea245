/* A program linked the Microsoft way against TARNHEAP.lib, with no C runtime of its own: its
 * entry point uses the heap through the DLL and leaves through KERNEL32's ExitProcess, with 0
 * when every check held. */
#include <stdlib.h>

#include "tarnheap.h"

__declspec(dllimport) __declspec(noreturn) void __stdcall ExitProcess(unsigned code);

void start(void) {
    unsigned failures = 0;
    if (mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE) != TARNHEAP_PROBE_ANSWER) failures |= 1;
    unsigned char* block = malloc(100);
    unsigned char* zeroed = calloc(64, 64);
    if (block == NULL || zeroed == NULL) ExitProcess(failures | 2);
    for (unsigned i = 0; i < 100; ++i) block[i] = (unsigned char)(i * 7);
    block = realloc(block, 5000);
    if (block == NULL) ExitProcess(failures | 4);
    for (unsigned i = 0; i < 100; ++i) failures |= block[i] != (unsigned char)(i * 7) ? 8 : 0;
    for (unsigned i = 0; i < 64 * 64; ++i) failures |= zeroed[i] != 0 ? 16 : 0;
    free(block);
    free(zeroed);
    ExitProcess(failures);
}
