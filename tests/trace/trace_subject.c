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

struct slot {
    void* block;
    unsigned long number; /* 0: empty */
};

static struct slot slots[SLOTS];
static unsigned long blocks_made;
static uint64_t random_state;
static int log_file;

static uint64_t draw(uint64_t below) {
    random_state = random_state * 6364136223846793005ULL + 1442695040888963407ULL;
    return (random_state >> 33) % below;
}

/* Sizes over every area: mostly small, then bucket units, a few runs of groups, and zero. */
static size_t random_size(void) {
    switch (draw(16)) {
        case 0:
            return 0;
        case 1:
        case 2:
            return 257 + draw(35328 - 256);
        case 3:
            return 35329 + draw(600000);
        default:
            return 1 + draw(256);
    }
}

static void log_call(const char* call, uint64_t first, uint64_t second, unsigned long number,
                     const char* flags) {
    char line[160];
    int length = snprintf(line, sizeof line, "%s %llu %llu %lu%s\n", call,
                          (unsigned long long)first, (unsigned long long)second, number, flags);
    if (write(log_file, line, (size_t)length) != length) _exit(3);
}

static void made(struct slot* slot, void* block, const char* call, uint64_t first,
                 uint64_t second) {
    slot->block = block;
    slot->number = block == NULL ? 0 : ++blocks_made;
    log_call(call, first, second, slot->number, block == NULL ? " null" : "");
}

static void new_block(struct slot* slot) {
    size_t size = random_size(), alignment = (size_t)16 << draw(6);
    void* block = NULL;
    switch (draw(10)) {
        case 0: {
            size_t count = 1 + draw(8);
            return made(slot, calloc(count, size / 8), "calloc", count, size / 8);
        }
        case 1:
            if (posix_memalign(&block, alignment, size) != 0) block = NULL;
            return made(slot, block, "posix_memalign", alignment, size);
        case 2:
            return made(slot, aligned_alloc(alignment, size), "aligned_alloc", alignment, size);
        case 3:
            return made(slot, memalign(alignment, size), "memalign", alignment, size);
        case 4:
            return made(slot, valloc(size), "valloc", size, 0);
        default:
            return made(slot, malloc(size), "malloc", size, 0);
    }
}

/* A resize to 0 bytes that answers null has freed the block; any other null keeps it. */
static void resize(struct slot* slot) {
    size_t size = random_size();
    int array = draw(4) == 0;
    void* moved = array ? reallocarray(slot->block, 2, size / 2) : realloc(slot->block, size);
    char flags[24];
    snprintf(flags, sizeof flags, "%s%s", slot->block == NULL ? " from-null" : "",
             moved == NULL ? " null" : "");
    if (slot->block == NULL && moved != NULL) slot->number = ++blocks_made;
    if (array)
        log_call("reallocarray", 2, size / 2, slot->number, flags);
    else
        log_call("realloc", size, 0, slot->number, flags);
    if (moved != NULL || (array ? size / 2 : size) == 0) slot->block = moved;
    if (slot->block == NULL) slot->number = 0;
}

static void release(struct slot* slot) {
    free(slot->block);
    log_call("free", 0, 0, slot->number, "");
    slot->block = NULL;
    slot->number = 0;
}

static int random_calls(const char* seed, const char* count, const char* path) {
    random_state = strtoull(seed, NULL, 10);
    log_file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (log_file < 0) return 2;
    for (unsigned long call = strtoul(count, NULL, 10); call > 0; --call) {
        struct slot* slot = &slots[draw(SLOTS)];
        unsigned kind = (unsigned)draw(4);
        if (kind == 0)
            resize(slot);
        else if (slot->block == NULL)
            new_block(slot);
        else
            release(slot);
    }
    for (unsigned i = 0; i < SLOTS; ++i)
        if (slots[i].block != NULL) release(&slots[i]);
    return close(log_file);
}

/* Three blocks of small class 18, a group of bucket class 45 with 20 units in use, one of
 * class 5 with 30, a large run of 3 groups, and in the run cache a run of 3 groups and an
 * emptied group of class 51. */
static int construct(void) {
    static void* kept[3 + 20 + 30 + 17 + 2];
    void** block = kept;
    for (int i = 0; i < 3; ++i) *block++ = malloc(100);
    for (int i = 0; i < 20; ++i) *block++ = malloc(3000);
    for (int i = 0; i < 30; ++i) *block++ = malloc(300);
    void** bucket_units = block;
    for (int i = 0; i < 17; ++i) *block++ = malloc(4000);
    for (int i = 0; i < 2; ++i) *block++ = malloc(200000);
    free(block[-1]);
    for (int i = 0; i < 17; ++i) free(bucket_units[i]);
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
