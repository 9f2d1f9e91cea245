/* An LD_PRELOAD shim that counts the requests of a program by kind and size, and the peak
 * number of live blocks, then writes them at exit to the file named by SIZE_RECORDER_OUT:
 *
 *     live <peak live blocks>
 *     <m|c|r> <bytes> <count>      (malloc, calloc with bytes = count × size, realloc)
 *
 * It forwards every call to the C library's own entry points, which glibc exports under
 * __libc_ names, so it needs no dlsym (which itself allocates) and no start-up. Only for
 * single-threaded programs: the counters take no lock. */
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

extern void* __libc_malloc(size_t bytes);
extern void* __libc_calloc(size_t count, size_t bytes);
extern void* __libc_realloc(void* block, size_t bytes);
extern void __libc_free(void* block);

enum { KIND_MALLOC, KIND_CALLOC, KIND_REALLOC, KIND_COUNT };
enum { TABLE_SLOTS = 1 << 16 };

struct size_count {
    uint64_t key; /* (bytes << 2 | kind) + 1; 0 marks a free slot */
    uint64_t count;
};

static struct size_count table[TABLE_SLOTS];
static uint64_t live_blocks, peak_live_blocks, dropped_requests;

static void count_request(unsigned kind, size_t bytes) {
    uint64_t key = ((uint64_t)bytes << 2 | kind) + 1;
    uint64_t slot = (key * 0x9e3779b97f4a7c15ULL) >> 48;
    for (unsigned probe = 0; probe < TABLE_SLOTS; ++probe, slot = (slot + 1) % TABLE_SLOTS) {
        if (table[slot].key == 0) table[slot].key = key;
        if (table[slot].key == key) {
            ++table[slot].count;
            return;
        }
    }
    ++dropped_requests;
}

static void count_new_block(const void* block) {
    if (block != NULL && ++live_blocks > peak_live_blocks) peak_live_blocks = live_blocks;
}

void* malloc(size_t bytes) {
    count_request(KIND_MALLOC, bytes);
    void* block = __libc_malloc(bytes);
    count_new_block(block);
    return block;
}

void* calloc(size_t count, size_t bytes) {
    count_request(KIND_CALLOC, count * bytes);
    void* block = __libc_calloc(count, bytes);
    count_new_block(block);
    return block;
}

void* realloc(void* block, size_t bytes) {
    count_request(KIND_REALLOC, bytes);
    void* moved = __libc_realloc(block, bytes);
    if (block == NULL) count_new_block(moved);
    if (block != NULL && bytes == 0) --live_blocks;
    return moved;
}

void free(void* block) {
    if (block != NULL && live_blocks > 0) --live_blocks;
    __libc_free(block);
}

__attribute__((destructor)) static void write_counts(void) {
    const char* path = getenv("SIZE_RECORDER_OUT");
    if (path == NULL) return;
    int out = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0) return;
    char line[96];
    int length =
        snprintf(line, sizeof line, "live %llu\ndropped %llu\n",
                 (unsigned long long)peak_live_blocks, (unsigned long long)dropped_requests);
    ssize_t written = write(out, line, (size_t)length);
    for (unsigned slot = 0; slot < TABLE_SLOTS && written >= 0; ++slot) {
        if (table[slot].key == 0) continue;
        uint64_t key = table[slot].key - 1;
        length = snprintf(line, sizeof line, "%c %llu %llu\n", "mcr"[key & 3],
                          (unsigned long long)(key >> 2), (unsigned long long)table[slot].count);
        written = write(out, line, (size_t)length);
    }
    close(out);
}
