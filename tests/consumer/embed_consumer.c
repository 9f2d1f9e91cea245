/* The embeddable library beside the C library's own heap: the prefixed entry points answer the
 * probe and serve blocks of their own, while malloc and free stay the C library's. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarnheap.h"

int main(void) {
    int answer = tarnheap_mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
    char* text = tarnheap_malloc(100);
    unsigned char* zeroed = tarnheap_calloc(10, 10);
    char* own = malloc(100);
    int damaged = answer != TARNHEAP_PROBE_ANSWER || text == NULL || zeroed == NULL || own == NULL;
    if (damaged == 0) {
        memset(text, 'x', 100);
        memset(own, 'y', 100);
        text = tarnheap_realloc(text, 5000);
        damaged = text == NULL;
    }
    for (int i = 0; i < 100 && damaged == 0; ++i) damaged = text[i] != 'x' || zeroed[i] != 0;
    tarnheap_free(text);
    tarnheap_free(zeroed);
    free(own);
    printf("probe answered %d; blocks %s beside the C library's heap\n", answer,
           damaged ? "damaged or missing" : "served");
    return damaged;
}
