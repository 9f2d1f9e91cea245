/* The program the trace tests record. It allocates only what its mode says, writes no output
 * through stdio (which would allocate), and logs its own calls where asked.
 *
 *     trace_subject random SEED COUNT LOG  COUNT calls of every kind on random sizes over every
 *                                          area, each logged to LOG as
 *                                          "<call> <first> <second> <block> [from-null] [null]",
 *                                          block numbering blocks in the order they were made
 *     trace_subject construct              a known heap state for the map test
 *     trace_subject threads                a second thread that allocates */
#define _GNU_SOURCE
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { SLOTS = 48 };
enum { CALLOC, POSIX, ALIGNED, MEMALIGN, VALLOC, MALLOC, REALLOC, ARRAY, FREE, NEW };
static const char* const NAMES[] = {"calloc",   "posix_memalign", "aligned_alloc",
                                    "memalign", "valloc",         "malloc",
                                    "realloc",  "reallocarray",   "free"};

static void* blocks[SLOTS];
static unsigned long numbers[SLOTS]; /* 0: empty */
static unsigned long blocks_made;
static uint64_t random_state;

static uint64_t draw(uint64_t below) {
    random_state = random_state * 6364136223846793005ULL + 1442695040888963407ULL;
    return (random_state >> 33) % below;
}

/* Sizes over every area: mostly small, then bucket units, a few runs of groups, and zero. */
static size_t random_size(void) {
    uint64_t kind = draw(16);
    return kind == 0   ? 0
           : kind < 3  ? 257 + draw(35072)
           : kind == 3 ? 35329 + draw(600000)
                       : 1 + draw(256);
}

/* On a random slot, a resize one time in four, else a new block in an empty slot or the release
 * of a full one. The draws keep the order data/subject.trace was recorded with. A resize to 0
 * bytes that answers null has freed the block; any other null keeps it. */
static int logged_call(int log_file, int closing_slot) {
    unsigned slot = closing_slot >= 0 ? (unsigned)closing_slot : (unsigned)draw(SLOTS);
    int resize = closing_slot < 0 && draw(4) == 0;
    void *block = blocks[slot], *result = NULL;
    size_t size = resize || block == NULL ? random_size() : 0;
    int kind = resize ? REALLOC + (draw(4) == 0) : block != NULL ? FREE : NEW;
    uint64_t alignment = kind == NEW ? 16u << draw(6) : 0, count = kind == NEW ? 1 + draw(8) : 0;
    uint64_t pick = kind == NEW ? draw(10) : 0;
    if (kind == NEW) kind = pick < MALLOC ? (int)pick : MALLOC;
    /* The arguments of each kind of call, as logged. */
    const uint64_t firsts[] = {count, alignment, alignment, alignment, size, size, size, 2, 0};
    const uint64_t seconds[] = {size / 8, size, size, size, 0, 0, 0, size / 2, 0};
    uint64_t first = firsts[kind], second = seconds[kind];
    result = kind == CALLOC     ? calloc(first, second)
             : kind == ALIGNED  ? aligned_alloc(first, second)
             : kind == MEMALIGN ? memalign(first, second)
             : kind == VALLOC   ? valloc(first)
             : kind == MALLOC   ? malloc(first)
             : kind == REALLOC  ? realloc(block, first)
             : kind == ARRAY    ? reallocarray(block, first, second)
                                : NULL;
    if (kind == POSIX && posix_memalign(&result, first, second) != 0) result = NULL;
    if (kind == FREE) free(block);
    if (block == NULL && result != NULL) numbers[slot] = ++blocks_made;
    char line[160];
    int length = snprintf(line, sizeof line, "%s %llu %llu %lu%s%s\n", NAMES[kind],
                          (unsigned long long)first, (unsigned long long)second, numbers[slot],
                          resize && block == NULL ? " from-null" : "",
                          result == NULL && kind != FREE ? " null" : "");
    if (result != NULL || kind == FREE || (kind == REALLOC ? first : first * second) == 0)
        blocks[slot] = result;
    if (blocks[slot] == NULL) numbers[slot] = 0;
    return write(log_file, line, (size_t)length) == length;
}

static int random_calls(const char* seed, const char* count, const char* path) {
    random_state = strtoull(seed, NULL, 10);
    int log_file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (unsigned long call = strtoul(count, NULL, 10); call > 0; --call)
        if (!logged_call(log_file, -1)) return 3;
    for (int slot = 0; slot < SLOTS; ++slot)
        if (blocks[slot] != NULL && !logged_call(log_file, slot)) return 3;
    return close(log_file);
}

/* Three blocks of small class 18, a group of bucket class 45 with 20 units in use, one of
 * class 5 with 30, a large run of 3 groups, and in the run cache a run of 3 groups and an
 * emptied group of class 51. */
static int construct(void) {
    static void* kept[3 + 20 + 30 + 17 + 2];
    static const size_t SIZES[] = {100, 3000, 300, 4000, 200000};
    static const int COUNTS[] = {3, 20, 30, 17, 2};
    void** block = kept;
    for (int size = 0; size < 5; ++size)
        for (int i = 0; i < COUNTS[size]; ++i) *block++ = malloc(SIZES[size]);
    free(block[-1]);
    for (int i = 0; i < 17; ++i) free(kept[53 + i]);
    return 0;
}

static void* allocate_elsewhere(void* size) {
    return malloc((size_t)size);
}

static int threads(void) {
    pthread_t thread;
    free(malloc(64));
    if (pthread_create(&thread, NULL, allocate_elsewhere, (void*)64) != 0) return 2;
    void* block;
    pthread_join(thread, &block);
    free(block);
    return 0;
}

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "random") == 0) return random_calls(argv[2], argv[3], argv[4]);
    if (argc == 2 && strcmp(argv[1], "construct") == 0) return construct();
    if (argc == 2 && strcmp(argv[1], "threads") == 0) return threads();
    return 2;
}
