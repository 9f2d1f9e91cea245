/* The trace file of tarnheap-trace: every allocation call of one process, in call order.
 *
 * Written by the recorder (C), read by the replayers (C++); this header is the one definition
 * of the format. All integers are little-endian.
 *
 * Header, 64 bytes at offset 0:
 *     magic       8 bytes  "TARNTRC1"
 *     version     u32      TRACE_VERSION
 *     status      u32      TRACE_RECORDING while the recorder runs (and after a program that
 *                          ended without running its exit handlers), TRACE_COMPLETE, or
 *                          TRACE_REFUSED when the program allocated from a second thread
 *     operations  u64      records that follow (0 until complete)
 *     identities  u64      one more than the highest block identity (0 until complete)
 *     foreign     u64      frees and reallocs of blocks the recorder never saw handed out
 *     reserved    24 bytes zero
 *
 * Records, back to back up to the end of the file:
 *     byte 0      the call (trace_call, low 4 bits) and TRACE_FLAG_* (high 4 bits)
 *     identity    varint   the block the call made, resized or freed; 0 for none (a null
 *                          result, free(NULL), or a foreign block)
 *     arguments   varint × TRACE_ARGUMENTS[call], as the program passed them
 * A varint is 7 bits per byte, lowest group first, high bit set on every byte but the last.
 *
 * A block keeps its identity through every realloc until it is freed; identities of freed
 * blocks are reused, most recently freed first, so the highest identity is the peak number of
 * live blocks. realloc of a foreign block is recorded as realloc of null (it makes a new
 * block); a foreign free as free(NULL). */
#ifndef TARNHEAP_TRACE_FORMAT_H
#define TARNHEAP_TRACE_FORMAT_H

#include <stdint.h>

#define TRACE_MAGIC "TARNTRC1"
#define TRACE_MAGIC_BYTES 8
#define TRACE_VERSION 1
#define TRACE_HEADER_BYTES 64
/* The longest record: the call byte and three 64-bit varints of 10 bytes each. */
#define TRACE_RECORD_MAX_BYTES 31

enum trace_status { TRACE_RECORDING = 0, TRACE_COMPLETE = 1, TRACE_REFUSED = 2 };

enum trace_call {
    TRACE_MALLOC = 1,         /* size */
    TRACE_CALLOC = 2,         /* count, size */
    TRACE_REALLOC = 3,        /* size */
    TRACE_FREE = 4,           /* (none) */
    TRACE_POSIX_MEMALIGN = 5, /* alignment, size */
    TRACE_ALIGNED_ALLOC = 6,  /* alignment, size */
    TRACE_MEMALIGN = 7,       /* alignment, size */
    TRACE_VALLOC = 8,         /* size */
    TRACE_PVALLOC = 9,        /* size */
    TRACE_REALLOCARRAY = 10,  /* count, size */
    TRACE_CALL_LIMIT = 11
};

/* The call returned null (or posix_memalign an error): no block was made or moved. A realloc
 * of 0 bytes that returns null has freed its block. */
#define TRACE_FLAG_NULL_RESULT 0x10
/* realloc or reallocarray of null (or of a foreign block): the identity is a new block. */
#define TRACE_FLAG_FROM_NULL 0x20
#define TRACE_CALL_MASK 0x0F

static const uint8_t TRACE_ARGUMENTS[TRACE_CALL_LIMIT] = {0, 1, 2, 1, 0, 2, 2, 2, 1, 1, 2};

struct trace_header {
    char magic[TRACE_MAGIC_BYTES];
    uint32_t version;
    uint32_t status;
    uint64_t operations;
    uint64_t identities;
    uint64_t foreign;
    uint8_t reserved[24];
};

/* Exit status of a program stopped for allocating from a second thread. */
#define TRACE_REFUSED_EXIT 70

/* The environment variable that names the trace file for the recorder. */
#define TRACE_OUTPUT_VARIABLE "TARNHEAP_TRACE_OUT"

#ifdef __cplusplus
static_assert(sizeof(trace_header) == TRACE_HEADER_BYTES, "the header is 64 bytes");
#else
_Static_assert(sizeof(struct trace_header) == TRACE_HEADER_BYTES, "the header is 64 bytes");
#endif

#endif
