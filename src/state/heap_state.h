// The one record that holds all of the heap's bookkeeping.
//
// It lives in static storage and is zero when the library is loaded. The zero state is itself
// meaningful: with every stack depth and free count at zero every fast path misses, and the
// slow path that catches the miss runs the initialisation. Nothing is allocated, freed or
// locked; callers must never enter the heap from two threads at once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bucket/group_descriptor.h"
#include "platform/os_memory_ops.h"
#include "runs/run_search_state.h"
#include "state/layout.h"

namespace tarnheap {

// The hot part of a small class; all 28 lie in four cache lines.
struct small_class_head_record {
    uint32_t segment_key;  // region base >> 33 once initialised, 0 before
    int16_t depth;         // entries on the class's free-index stack
    uint8_t units;         // block size / 4; 0: the class is not in use
    uint8_t route;         // the class serving size step j, j being this record's own index
};
static_assert(sizeof(small_class_head_record) == 8);

// What only refills and flushes touch.
struct small_class_record {
    uint64_t first_block;
    uint64_t* bitmap;   // one bit per block, set while handed out or stacked
    uint32_t cursor;    // bitmap word where the next refill starts; none clear below
    int32_t remaining;  // clear bits: blocks neither handed out nor stacked
    uint32_t block_size;
    uint32_t capacity;
    uint64_t uncommitted_base;  // the segment base until the first refill commits it
};

struct bucket_class_entry {
    uint32_t group_index;  // head of the class's list of groups that may have free units
    uint32_t bucket_size;
};
static_assert(sizeof(bucket_class_entry) == 8);

struct run_length_entry {
    group_descriptor_record* cached_runs;  // most recently cached free run of this length
    run_finder finder;
};

inline constexpr unsigned RUN_LENGTH_ENTRIES = 257;

// The group bitmap's limit ends inside block 133 (of 512 bits); the block-level finders read
// whole blocks up to it. The fixed finders that stop only on a free run (bit runs of up to 63,
// byte runs of up to 504 and word runs of up to 704 bits) find one within the zero tail, whose
// 256 bytes hold a free word-aligned run of 704 bits with room for the probes beyond it.
inline constexpr uint64_t GROUP_BITMAP_BYTES = (GROUP_COUNT + 511) / 512 * 64 + 256;

inline constexpr unsigned ZEROED_SLOTS = 1024;
// Only the one-slot finder and bit runs of 11 to 16 slots search the zeroed bitmap: 64 zero
// bytes hold such a run and the 64-bit loads that find it.
inline constexpr uint64_t ZEROED_BITMAP_BYTES = ZEROED_SLOTS / 8 + 64;

inline constexpr unsigned COMMIT_CHUNK_COUNT = 9;

struct heap_state_record {
    // Requests made while initialisation runs are carved from here: a 16-byte header holding
    // the piece's size, then the caller's bytes. Must stay first: its blocks are recognised by
    // their distance from the start of the record.
    alignas(64) uint8_t bootstrap_arena[BOOTSTRAP_BYTES];
    uint8_t init_state;
    uint64_t bucket_area_base;
    uint64_t rng_state;

    uint8_t zeroed_uses;  // qualifying calloc requests seen, up to the 200 before the region
    uint64_t zeroed_region_base;
    alignas(64) uint8_t zeroed_bitmap[ZEROED_BITMAP_BYTES];
    run_search_state zeroed_search_state;
    uint32_t zeroed_run_length[ZEROED_SLOTS];  // slots of the run starting at each slot

    generic_run_finder generic_block_finder;
    void* (*fallback_malloc)(size_t);
    void (*fallback_free)(void*);
    void* (*fallback_calloc)(size_t, size_t);
    void* (*fallback_realloc)(void*, size_t);
    uint64_t bootstrap_used;
    os_memory_ops_record* memory_ops;

    alignas(64) small_class_head_record small_class_head[SMALL_CLASS_COUNT];
    small_class_record small_class[SMALL_CLASS_COUNT];
    bucket_class_entry bucket_class_table[BUCKET_CLASS_COUNT];
    run_search_state group_search_state;
    run_length_entry run_length_table[RUN_LENGTH_ENTRIES];

    uint64_t cached_groups;
    group_descriptor_record* short_runs_first;  // age list of runs up to 1899 groups, oldest first
    group_descriptor_record* short_runs_last;
    group_descriptor_record* long_runs_first;  // age list of longer runs
    group_descriptor_record* long_runs_last;
    uint8_t chunk_committed[COMMIT_CHUNK_COUNT];

    alignas(64) uint32_t free_index_stack[SMALL_CLASS_COUNT][FREE_INDEX_STACK_CAPACITY];
    alignas(64) uint8_t group_bitmap[GROUP_BITMAP_BYTES];
    alignas(64) group_descriptor_record group_descriptor[GROUP_COUNT];

    os_memory_ops_record memory_ops_copy;
};

extern heap_state_record heap_state;

inline uint64_t region_base() {
    return heap_state.bucket_area_base - BUCKET_AREA_OFFSET;
}

// Pieces carved while the heap initialises lie in the first 2 MiB of the state.
inline bool in_bootstrap_arena(uint64_t address) {
    return address - reinterpret_cast<uint64_t>(&heap_state) < BOOTSTRAP_BYTES;
}

}  // namespace tarnheap
