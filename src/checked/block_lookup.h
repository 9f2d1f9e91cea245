// Which block of the heap an address names, from the heap's records and the checked build's
// shadow: the block at or around it, whether it is handed out, and what the program asked for.
#pragma once

#include <cstdint>

namespace tarnheap {

enum class block_area : uint8_t {
    foreign,    // not the heap's memory: the C runtime's, or null
    unused,     // the heap's memory where no block lies
    small,      // a small class's block
    unit,       // a unit of a bucket group
    large,      // a large block in a run of groups
    zeroed,     // a block of calloc's zeroed region
    bootstrap,  // a piece carved while the heap started
};

// Where in the heap's memory an address that lies in no block is.
enum class unused_place : uint8_t {
    small_segment,    // a small class's segment outside its blocks
    bucket_group,     // a group of the bucket area
    region_end,       // the end of the region, past the bucket area
    zeroed_region,    // a slot of the zeroed region
    bootstrap_arena,  // the bootstrap arena past its pieces
    heap_records,     // the heap's own records
};

inline constexpr uint64_t UNKNOWN_REQUEST = ~uint64_t{0};
inline constexpr uint32_t UNKNOWN_CLASS = ~uint32_t{0};

struct checked_block {
    block_area area;
    unused_place place;    // for unused memory
    const char* problem;   // why `address` is not a block handed out; null when it is one
    uint64_t address;      // the address asked about
    uint64_t start;        // the block at or around it
    uint64_t usable;       // bytes from `start` to the end of what serves the block
    uint64_t requested;    // bytes asked for when it was last handed out, or UNKNOWN_REQUEST
    uint32_t class_index;  // small or bucket class, or UNKNOWN_CLASS
    uint32_t group;        // the small block's index, the unit's group, the run's first group, the
                           // zeroed block's slot
    uint32_t groups;       // the run's groups, the zeroed block's slots
};

// The block of `area` at `start`, `usable` bytes long, as `address` names it: not its start
// is its problem; the bytes asked for, its class and its group are not known yet.
checked_block block_record(block_area area, uint64_t address, uint64_t start, uint64_t usable);

// The block that `address` names, with the problem if it is not the start of a block handed
// out. Only misuse takes the long ways: addresses inside a large run's later groups and inside
// a zeroed-region block are found by walking back to the block's start.
checked_block find_block(uint64_t address);

}  // namespace tarnheap
