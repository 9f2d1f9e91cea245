// The checked build's own records of the heap's blocks, kept in shadow memory apart from the
// blocks and from heap_state, so that the checked heap lays out and hands out exactly what the
// release heap does.
//
// Why a reservation: the records scale with the areas they describe (a 16-bit entry per small
// block, one per 64 bytes of the bucket area), 392 MiB at most, of which a program uses a
// sliver. Static arrays of that size would be committed memory in a Windows DLL; one
// reservation, made when the heap starts and committed a 1 MiB piece at a time when a record
// is first written there, costs only what the program's blocks need. A piece never written
// reads as zero: no record there.
#pragma once

#include <cstdint>

#include "bucket/commit_groups.h"
#include "small/small_class_table.h"
#include "state/heap_state.h"

namespace tarnheap {

// A small block's entry: the bytes asked for while handed out, kept after its release for the
// messages. 0 for a block never handed out.
using small_entry = uint16_t;
inline constexpr small_entry SMALL_HANDED_OUT = 0x4000;
inline constexpr small_entry SMALL_RELEASED = 0x8000;
inline constexpr small_entry SMALL_REQUESTED = 0x3fff;
static_assert(SMALL_MAX <= SMALL_REQUESTED);

// The bucket area in granules of 64 bytes: every unit and every large block starts on one.
inline constexpr uint64_t GRANULE_BYTES = 64;
inline constexpr unsigned GRANULE_SHIFT = 6;
inline constexpr uint64_t GRANULES_PER_GROUP = GROUP_BYTES / GRANULE_BYTES;
inline constexpr uint64_t GRANULE_COUNT = GROUP_COUNT * GRANULES_PER_GROUP;
static_assert(GROUP_BYTES % GRANULE_BYTES == 0 && (1u << GRANULE_SHIFT) == GRANULE_BYTES);
// A unit's entry, at its first granule, holds the bytes asked for, which fit 16 bits.
static_assert(BUCKET_MAX < 0x10000);

// The large block whose run starts at a group: where it starts (0: none yet) and the bytes
// asked for. Kept after its release for the messages.
struct large_block_record {
    uint64_t start;
    uint64_t requested;
};

// A slot of the zeroed region where a block starts: the bytes asked for and its state.
inline constexpr uint32_t ZEROED_HANDED_OUT = 0x80000000;
inline constexpr uint32_t ZEROED_RELEASED = 0x40000000;
inline constexpr uint32_t ZEROED_REQUESTED = 0x3fffffff;

// Bootstrap pieces are 16-byte aligned: one bit per 16 bytes tells a released piece.
inline constexpr unsigned BOOTSTRAP_UNIT_SHIFT = 4;

inline constexpr uint64_t SHADOW_PIECE_BYTES = 0x100000;
inline constexpr uint64_t SHADOW_ALIGNMENT = 64;

struct shadow_layout_record {
    uint64_t small_entries[SMALL_CLASS_COUNT];  // SEGMENT_BYTES / block size entries each
    uint64_t unit_requests;                     // uint16_t per granule
    uint64_t filled_granules;                   // a bit per granule
    uint64_t large_blocks;                      // a large_block_record per group
    uint64_t zeroed_slots;                      // uint32_t per slot
    uint64_t bootstrap_released;                // a bit per 16 bytes of the arena
    uint64_t bytes;
};

constexpr uint64_t shadow_aligned(uint64_t offset) {
    return (offset + SHADOW_ALIGNMENT - 1) & ~(SHADOW_ALIGNMENT - 1);
}

inline constexpr shadow_layout_record SHADOW_LAYOUT = [] {
    shadow_layout_record layout{};
    uint64_t at = 0;
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c) {
        layout.small_entries[c] = at;
        at = shadow_aligned(at + SEGMENT_BYTES / SMALL_CLASS_TABLE.bytes[c] * sizeof(small_entry));
    }
    layout.unit_requests = at;
    at = shadow_aligned(at + GRANULE_COUNT * sizeof(uint16_t));
    layout.filled_granules = at;
    at = shadow_aligned(at + (GRANULE_COUNT + 63) / 64 * 8);
    layout.large_blocks = at;
    at = shadow_aligned(at + GROUP_COUNT * sizeof(large_block_record));
    layout.zeroed_slots = at;
    at = shadow_aligned(at + ZEROED_SLOTS * sizeof(uint32_t));
    layout.bootstrap_released = at;
    at = shadow_aligned(at + (BOOTSTRAP_BYTES >> BOOTSTRAP_UNIT_SHIFT) / 8);
    layout.bytes = (at + SHADOW_PIECE_BYTES - 1) & ~(SHADOW_PIECE_BYTES - 1);
    return layout;
}();
inline constexpr uint64_t SHADOW_PIECES = SHADOW_LAYOUT.bytes / SHADOW_PIECE_BYTES;
static_assert(SHADOW_PIECES < 512, "the shadow stays below half a gigabyte");

struct checked_shadow_record {
    uint8_t* base;  // null until the heap has started
    uint64_t committed[(SHADOW_PIECES + 63) / 64];
};

extern checked_shadow_record checked_shadow;

// Reserves the shadow; the heap has just reserved its region. Stops the program if it cannot.
void start_shadow();

// Gives the shadow back, as it was before the heap started (tests start heaps afresh).
void release_shadow();

// Commits the pieces holding [offset, offset + bytes) that are not committed yet.
void commit_shadow(uint64_t offset, uint64_t bytes);

inline bool shadow_committed(uint64_t offset) {
    uint64_t piece = offset / SHADOW_PIECE_BYTES;
    return (checked_shadow.committed[piece / 64] >> (piece % 64)) & 1;
}

// A record for reading: zero where nothing was ever written.
template <typename record>
record shadow_read(uint64_t offset) {
    if (!shadow_committed(offset)) return record{};
    return *reinterpret_cast<const record*>(checked_shadow.base + offset);
}

// A record for writing, its piece committed.
template <typename record>
record& shadow_write(uint64_t offset) {
    if (!shadow_committed(offset) || !shadow_committed(offset + sizeof(record) - 1))
        commit_shadow(offset, sizeof(record));
    return *reinterpret_cast<record*>(checked_shadow.base + offset);
}

// The index in its class of the small block holding `address`.
inline uint64_t small_block_index(unsigned small_class, uint64_t address) {
    const small_class_record& descriptor = heap_state.small_class[small_class];
    return (address - descriptor.first_block) / descriptor.block_size;
}

inline uint64_t small_entry_offset(unsigned small_class, uint64_t block_index) {
    return SHADOW_LAYOUT.small_entries[small_class] + block_index * sizeof(small_entry);
}

inline uint64_t granule_of(uint64_t address) {
    return (address - heap_state.bucket_area_base) >> GRANULE_SHIFT;
}

inline uint64_t unit_request_offset(uint64_t granule) {
    return SHADOW_LAYOUT.unit_requests + granule * sizeof(uint16_t);
}

inline uint64_t large_block_offset(uint32_t group) {
    return SHADOW_LAYOUT.large_blocks + group * sizeof(large_block_record);
}

inline uint64_t zeroed_slot_offset(uint64_t slot) {
    return SHADOW_LAYOUT.zeroed_slots + slot * sizeof(uint32_t);
}

// The granules [first, end) whose bytes hold the release fill. Granules are marked when a unit
// or a large block is released and unmarked when memory over them is handed out again, in
// whatever role the group has by then.
bool granule_filled(uint64_t granule);
void mark_filled_granules(uint64_t first, uint64_t end);
void clear_filled_granules(uint64_t first, uint64_t end);
// The first marked granule in [first, end), or end; the first unmarked one.
uint64_t next_filled_granule(uint64_t first, uint64_t end);
uint64_t next_unfilled_granule(uint64_t first, uint64_t end);

bool bootstrap_piece_released(uint64_t address);
void mark_bootstrap_piece_released(uint64_t address);

}  // namespace tarnheap
