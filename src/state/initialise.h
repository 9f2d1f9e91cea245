#pragma once

#include <cstdint>

namespace tarnheap {

// Fills the state once, on the first slow path: fallbacks, processor check, the region, the
// random layout of the small classes, the tables and the warm-up. Leaves init_state at
// INIT_READY, or INIT_FAILED when the processor or the reservation rules the heap out.
void heap_initialise();

// Where a small class's blocks go in its 128 MiB segment, for a random gap of 64 * r bytes.
struct small_class_plan {
    uint32_t capacity;      // blocks
    uint32_t bitmap_bytes;  // whole 512-bit blocks
    uint32_t gap_bytes;
};
small_class_plan plan_small_class(uint32_t block_size, uint32_t r);

// The random gap is 64 * r bytes with r below this: less than 32 MiB.
inline constexpr uint32_t SMALL_GAP_STEPS = 0x7ffff;

}  // namespace tarnheap
