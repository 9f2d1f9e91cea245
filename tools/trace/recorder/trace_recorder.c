/* The recorder of tarnheap-trace: an LD_PRELOAD shim that passes every allocation call to the C
 * library's own entry points and writes each call, its arguments and the identity of its block
 * to the trace file named by TARNHEAP_TRACE_OUT (format: trace_format.h).
 *
 * It never allocates: its buffer is static, its tables come from mmap, and it reaches glibc's
 * allocator through the __libc_ names, so it needs no dlsym (which calls calloc). Only the
 * first process that starts it records: it creates the trace file exclusively, so that programs
 * the recorded one runs find the file there and pass through, and a forked child stops
 * recording at its first flush. An allocation from a second thread stops the program: the
 * heap it is recorded for serves one thread. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "trace_format.h"

extern void* __libc_malloc(size_t bytes);
extern void* __libc_calloc(size_t count, size_t bytes);
extern void* __libc_realloc(void* block, size_t bytes);
extern void __libc_free(void* block);
extern void* __libc_memalign(size_t alignment, size_t bytes);
extern void* __libc_valloc(size_t bytes);
extern void* __libc_pvalloc(size_t bytes);

enum recorder_mode { MODE_UNSET, MODE_STARTING, MODE_RECORDING, MODE_PASSING };
enum { BUFFER_BYTES = 1 << 20, FIRST_SLOT_BITS = 16, FIRST_SLOTS = 1 << FIRST_SLOT_BITS };

static int mode;
static int trace_file = -1;
static pid_t recording_process;
static const char* recording_thread;
static __thread char thread_mark __attribute__((tls_model("initial-exec")));
static struct trace_header header;
static uint8_t buffer[BUFFER_BYTES];
static size_t buffered;

/* Live blocks: address to identity, open addressing with linear probing, at most half full. */
struct block_slot {
    uint64_t address; /* 0: empty */
    uint64_t identity;
};
static struct block_slot* slots;
static uint64_t slot_count, slot_shift, live_blocks;

/* Identities of freed blocks, reused last in, first out. */
static uint64_t* free_identities;
static uint64_t free_capacity, free_count, next_identity = 1;

static void* grow_pages(void* old, size_t old_bytes, size_t bytes) {
    void* pages =
        old == NULL ? mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                    : mremap(old, old_bytes, bytes, MREMAP_MAYMOVE);
    return pages == MAP_FAILED ? NULL : pages;
}

static int write_all(const uint8_t* bytes, size_t length) {
    while (length > 0) {
        ssize_t written = write(trace_file, bytes, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return 0;
        bytes += written;
        length -= (size_t)written;
    }
    return 1;
}

/* A forked child must not write its copy of the buffer into the parent's file. */
static void flush(void) {
    if (getpid() != recording_process || !write_all(buffer, buffered)) mode = MODE_PASSING;
    buffered = 0;
}

static void write_header(uint32_t status) {
    header.status = status;
    header.identities = next_identity;
    if (pwrite(trace_file, &header, sizeof header, 0) != (ssize_t)sizeof header)
        mode = MODE_PASSING;
}

static void start(void) {
    mode = MODE_STARTING;
    const char* path = getenv(TRACE_OUTPUT_VARIABLE);
    trace_file = path == NULL ? -1 : open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    slot_count = FIRST_SLOTS;
    slot_shift = 64 - FIRST_SLOT_BITS;
    slots = grow_pages(NULL, 0, slot_count * sizeof *slots);
    if (trace_file < 0 || slots == NULL) {
        mode = MODE_PASSING;
        return;
    }
    memcpy(header.magic, TRACE_MAGIC, TRACE_MAGIC_BYTES);
    header.version = TRACE_VERSION;
    recording_process = getpid();
    recording_thread = &thread_mark;
    mode = MODE_RECORDING;
    if (!write_all((const uint8_t*)&header, sizeof header)) mode = MODE_PASSING;
}

static void refuse(void) {
    write_header(TRACE_REFUSED);
    _exit(TRACE_REFUSED_EXIT);
}

static int recording(void) {
    if (mode == MODE_UNSET) start();
    if (mode != MODE_RECORDING) return 0;
    if (&thread_mark != recording_thread) refuse();
    return 1;
}

static uint64_t slot_of(uint64_t address) {
    return ((address >> 4) * 0x9e3779b97f4a7c15ULL) >> slot_shift;
}

static void place(struct block_slot* table, uint64_t mask, uint64_t address, uint64_t identity) {
    uint64_t slot = slot_of(address);
    while (table[slot].address != 0) slot = (slot + 1) & mask;
    table[slot].address = address;
    table[slot].identity = identity;
}

static int grow_slots(void) {
    struct block_slot* old = slots;
    uint64_t old_count = slot_count;
    slots = grow_pages(NULL, 0, 2 * old_count * sizeof *slots);
    if (slots == NULL) return 0;
    slot_count *= 2;
    --slot_shift;
    for (uint64_t slot = 0; slot < old_count; ++slot)
        if (old[slot].address != 0)
            place(slots, slot_count - 1, old[slot].address, old[slot].identity);
    munmap(old, old_count * sizeof *old);
    return 1;
}

static void remember(const void* block, uint64_t identity) {
    if (2 * (live_blocks + 1) > slot_count && !grow_slots()) {
        mode = MODE_PASSING;
        return;
    }
    place(slots, slot_count - 1, (uint64_t)block, identity);
    ++live_blocks;
}

/* The identity of a live block, which leaves the table; 0 for a block never seen. Removal
 * shifts later entries of the probe chain back, so no chain is broken. */
static uint64_t forget(const void* block) {
    uint64_t mask = slot_count - 1, slot = slot_of((uint64_t)block);
    while (slots[slot].address != (uint64_t)block) {
        if (slots[slot].address == 0) return 0;
        slot = (slot + 1) & mask;
    }
    uint64_t identity = slots[slot].identity;
    for (uint64_t next = (slot + 1) & mask; slots[next].address != 0; next = (next + 1) & mask) {
        uint64_t home = slot_of(slots[next].address);
        if (((next - home) & mask) >= ((next - slot) & mask)) {
            slots[slot] = slots[next];
            slot = next;
        }
    }
    slots[slot].address = 0;
    --live_blocks;
    return identity;
}

static uint64_t new_identity(void) {
    return free_count > 0 ? free_identities[--free_count] : next_identity++;
}

static void release_identity(uint64_t identity) {
    if (free_count == free_capacity) {
        uint64_t capacity = free_capacity == 0 ? FIRST_SLOTS : 2 * free_capacity;
        uint64_t* grown = grow_pages(free_identities, free_capacity * sizeof *free_identities,
                                     capacity * sizeof *free_identities);
        if (grown == NULL) {
            mode = MODE_PASSING;
            return;
        }
        free_identities = grown;
        free_capacity = capacity;
    }
    free_identities[free_count++] = identity;
}

static uint8_t* put_varint(uint8_t* out, uint64_t value) {
    for (; value >= 0x80; value >>= 7) *out++ = (uint8_t)(value | 0x80);
    *out++ = (uint8_t)value;
    return out;
}

static void emit(unsigned call, uint64_t identity, uint64_t first, uint64_t second) {
    if (buffered + TRACE_RECORD_MAX_BYTES > BUFFER_BYTES) flush();
    uint8_t* out = buffer + buffered;
    *out++ = (uint8_t)call;
    out = put_varint(out, identity);
    unsigned arguments = TRACE_ARGUMENTS[call & TRACE_CALL_MASK];
    if (arguments > 0) out = put_varint(out, first);
    if (arguments > 1) out = put_varint(out, second);
    buffered = (size_t)(out - buffer);
    ++header.operations;
}

static void record_new(unsigned call, const void* block, uint64_t first, uint64_t second) {
    if (!recording()) return;
    uint64_t identity = 0;
    if (block != NULL) {
        identity = new_identity();
        remember(block, identity);
    }
    emit(call | (block == NULL ? TRACE_FLAG_NULL_RESULT : 0), identity, first, second);
}

/* A null result keeps the old block, unless the call was a resize to 0 bytes, which freed it. */
static void record_resize(unsigned call, const void* old, const void* moved, int freed_on_null,
                          uint64_t first, uint64_t second) {
    if (!recording()) return;
    uint64_t identity = old == NULL ? 0 : forget(old);
    if (old != NULL && identity == 0) ++header.foreign;
    if (identity == 0) call |= TRACE_FLAG_FROM_NULL;
    if (moved != NULL) {
        if (identity == 0) identity = new_identity();
        remember(moved, identity);
    } else {
        call |= TRACE_FLAG_NULL_RESULT;
        if (identity != 0 && !freed_on_null) remember(old, identity);
        if (identity != 0 && freed_on_null) release_identity(identity);
    }
    emit(call, identity, first, second);
}

void* malloc(size_t bytes) {
    void* block = __libc_malloc(bytes);
    record_new(TRACE_MALLOC, block, bytes, 0);
    return block;
}

void* calloc(size_t count, size_t bytes) {
    void* block = __libc_calloc(count, bytes);
    record_new(TRACE_CALLOC, block, count, bytes);
    return block;
}

void* realloc(void* block, size_t bytes) {
    void* moved = __libc_realloc(block, bytes);
    record_resize(TRACE_REALLOC, block, moved, bytes == 0, bytes, 0);
    return moved;
}

void* reallocarray(void* block, size_t count, size_t bytes) {
    size_t total;
    int overflows = __builtin_mul_overflow(count, bytes, &total);
    void* moved = overflows ? NULL : __libc_realloc(block, total);
    if (overflows) errno = ENOMEM;
    record_resize(TRACE_REALLOCARRAY, block, moved, !overflows && total == 0, count, bytes);
    return moved;
}

void free(void* block) {
    if (recording()) {
        uint64_t identity = block == NULL ? 0 : forget(block);
        if (block != NULL && identity == 0) ++header.foreign;
        if (identity != 0) release_identity(identity);
        emit(TRACE_FREE, identity, 0, 0);
    }
    __libc_free(block);
}

int posix_memalign(void** out, size_t alignment, size_t bytes) {
    int valid =
        alignment % sizeof(void*) == 0 && (alignment & (alignment - 1)) == 0 && alignment != 0;
    void* block = valid ? __libc_memalign(alignment, bytes) : NULL;
    if (block != NULL) *out = block;
    record_new(TRACE_POSIX_MEMALIGN, block, alignment, bytes);
    return !valid ? EINVAL : block == NULL ? ENOMEM : 0;
}

void* aligned_alloc(size_t alignment, size_t bytes) {
    void* block = __libc_memalign(alignment, bytes);
    record_new(TRACE_ALIGNED_ALLOC, block, alignment, bytes);
    return block;
}

void* memalign(size_t alignment, size_t bytes) {
    void* block = __libc_memalign(alignment, bytes);
    record_new(TRACE_MEMALIGN, block, alignment, bytes);
    return block;
}

void* valloc(size_t bytes) {
    void* block = __libc_valloc(bytes);
    record_new(TRACE_VALLOC, block, bytes, 0);
    return block;
}

void* pvalloc(size_t bytes) {
    void* block = __libc_pvalloc(bytes);
    record_new(TRACE_PVALLOC, block, bytes, 0);
    return block;
}

/* Calls made after this (by later exit handlers) pass through unrecorded. */
__attribute__((destructor)) static void finish(void) {
    if (mode != MODE_RECORDING) return;
    flush();
    if (mode != MODE_RECORDING) return;
    write_header(TRACE_COMPLETE);
    mode = MODE_PASSING;
}
