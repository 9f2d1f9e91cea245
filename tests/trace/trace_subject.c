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

static void* blocks[SLOTS];
static unsigned long numbers[SLOTS]; /* 0: empty */
static unsigned long blocks_made;
static uint64_t random_state;
static int log_file;

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

static void log_call(const char* call, uint64_t first, uint64_t second, unsigned long number,
                     const char* flags) {
    char line[160];
    int length = snprintf(line, sizeof line, "%s %llu %llu %lu%s\n", call,
                          (unsigned long long)first, (unsigned long long)second, number, flags);
    if (write(log_file, line, (size_t)length) != length) _exit(3);
}

static void new_block(unsigned slot) {
    size_t size = random_size(), alignment = (size_t)16 << draw(6), count = 1 + draw(8);
    uint64_t kind = draw(10), first = kind == 0 ? count : kind < 4 ? alignment : size;
    uint64_t second = kind == 0 ? size / 8 : kind < 4 ? size : 0;
    static const char* const NAMES[] = {"calloc", "posix_memalign", "aligned_alloc", "memalign",
                                        "valloc"};
    void* block = NULL;
    if (kind == 0)
        block = calloc(count, size / 8);
    else if (kind == 1 && posix_memalign(&block, alignment, size) != 0)
        block = NULL;
    else if (kind == 2)
        block = aligned_alloc(alignment, size);
    else if (kind == 3)
        block = memalign(alignment, size);
    else if (kind == 4)
        block = valloc(size);
    else if (kind > 4)
        block = malloc(size);
    blocks[slot] = block;
    numbers[slot] = block == NULL ? 0 : ++blocks_made;
    log_call(kind < 5 ? NAMES[kind] : "malloc", first, second, numbers[slot],
             block == NULL ? " null" : "");
}

/* A resize to 0 bytes that answers null has freed the block; any other null keeps it. */
static void resize(unsigned slot) {
    size_t size = random_size();
    int array = draw(4) == 0;
    void* moved = array ? reallocarray(blocks[slot], 2, size / 2) : realloc(blocks[slot], size);
    char flags[24];
    snprintf(flags, sizeof flags, "%s%s", blocks[slot] == NULL ? " from-null" : "",
             moved == NULL ? " null" : "");
    if (blocks[slot] == NULL && moved != NULL) numbers[slot] = ++blocks_made;
    log_call(array ? "reallocarray" : "realloc", array ? 2 : size, array ? size / 2 : 0,
             numbers[slot], flags);
    if (moved != NULL || (array ? size / 2 : size) == 0) blocks[slot] = moved;
    if (blocks[slot] == NULL) numbers[slot] = 0;
}

static void release(unsigned slot) {
    free(blocks[slot]);
    log_call("free", 0, 0, numbers[slot], "");
    blocks[slot] = NULL;
    numbers[slot] = 0;
}

static int random_calls(const char* seed, const char* count, const char* path) {
    random_state = strtoull(seed, NULL, 10);
    log_file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (log_file < 0) return 2;
    for (unsigned long call = strtoul(count, NULL, 10); call > 0; --call) {
        unsigned slot = (unsigned)draw(SLOTS);
        if (draw(4) == 0)
            resize(slot);
        else if (blocks[slot] == NULL)
            new_block(slot);
        else
            release(slot);
    }
    for (unsigned slot = 0; slot < SLOTS; ++slot)
        if (blocks[slot] != NULL) release(slot);
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

static void* allocate_elsewhere(void* unused) {
    (void)unused;
    return malloc(64);
}

static int threads(void) {
    pthread_t thread;
    free(malloc(64));
    if (pthread_create(&thread, NULL, allocate_elsewhere, NULL) != 0) return 2;
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
