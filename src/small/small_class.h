// Small classes: the pop and push of their free-index stacks (inline, for the fast paths) and
// the refill and flush that move blocks between a stack and its class's bitmap.
#pragma once

#include <cstdint>

#include "checked/hand_out_checks.h"
#include "small/small_class_table.h"
#include "state/build_config.h"
#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

TARNHEAP_HOT uint64_t small_block_address(uint32_t segment_key, uint32_t block_offset) {
    return (uint64_t{segment_key} << SEGMENT_KEY_SHIFT) +
           (uint64_t{block_offset} << BLOCK_OFFSET_SHIFT);
}

// A class's head and stack, found once for the prefetch and the pop that follows it.
struct small_stack {
    small_class_head_record& head;
    uint32_t* entries;
};

TARNHEAP_HOT small_stack stack_of(unsigned small_class) {
    return {heap_state.small_class_head[small_class], heap_state.free_index_stack[small_class]};
}

// Hints the block the class's next pop will hand out into the outer caches: LINES lines from
// its start, as many as a request of its size will touch first. Reads the entry below the top
// even when the stack holds fewer than two: the stale value is only a hint, it lies inside the
// state, and a prefetch never faults.
template <unsigned LINES>
TARNHEAP_HOT void prefetch_next_block(const small_stack& stack) {
    small_class_head_record head = stack.head;
    const uint32_t* below_top = stack.entries + head.depth - 2;
    auto* block = reinterpret_cast<const char*>(small_block_address(head.segment_key, *below_top));
    for (unsigned line = 0; line < LINES; ++line) __builtin_prefetch(block + 64 * line, 0, 1);
}

// Takes the top of the stack into `block`; false when the stack is empty.
TARNHEAP_HOT bool pop_small_block(const small_stack& stack, uint64_t& block) {
    small_class_head_record head = stack.head;
    if (head.depth <= 0) return false;
    const uint32_t* top = stack.entries + head.depth - 1;
    stack.head.depth = static_cast<int16_t>(head.depth - 1);
    block = small_block_address(head.segment_key, *top);
    if constexpr (CHECKED) check_small_hand_out(block);
    return true;
}

// The class of a request of 1 to 256 bytes, as the routing has it.
TARNHEAP_HOT unsigned small_class_for(uint64_t size) {
    if (size <= 4) return 0;
    if (size <= 64) return heap_state.small_class_head[(size + 3) / 4 - 1].route;
    return medium_small_class(size);
}

// Refills the empty stack of a class with remaining > 0 from its bitmap (committing the segment
// the first time) and returns the lowest block found; the rest go on the stack so that pops
// hand them out in ascending order. Never fails.
uint64_t small_class_refill(unsigned small_class);

// A block of the class: a pop, else a refill while the class has blocks never issued; 0 when
// the class is exhausted.
TARNHEAP_HOT uint64_t take_small_block(unsigned small_class) {
    uint64_t block;
    if (pop_small_block(stack_of(small_class), block)) return block;
    if (heap_state.small_class[small_class].remaining > 0) return small_class_refill(small_class);
    return 0;
}

// Empties a class's stack into its bitmap, leaving depth 0.
void flush_free_index_stack(unsigned small_class);

// The block offset of an address in the small-block area: its offset from the region base lies
// below 0xE0000000, so bit 32 of the address is clear and its low 32 bits are that offset.
TARNHEAP_HOT uint32_t block_offset_of(uint64_t address) {
    return static_cast<uint32_t>(address) >> BLOCK_OFFSET_SHIFT;
}

// Flushes the full stack of the block's class, then pushes the block: it is the only entry left.
void flush_and_push(uint64_t address);

// Pushes a released block on its class's stack. A full stack is flushed out of line, so that
// the common push keeps nothing live across a call and needs no stack frame.
TARNHEAP_HOT void push_small_block(unsigned small_class, uint64_t address) {
    small_class_head_record& head = heap_state.small_class_head[small_class];
    int64_t depth = head.depth;
    if (TARNHEAP_UNLIKELY(depth >= FREE_INDEX_STACK_CAPACITY)) return flush_and_push(address);
    heap_state.free_index_stack[small_class][depth] = block_offset_of(address);
    head.depth = static_cast<int16_t>(depth + 1);
}

// The small class owning `address`, or -1: its offset lies in the small area and the class's
// head, in use, holds the address's high bits.
TARNHEAP_HOT int small_class_owning(uint64_t address) {
    uint64_t small_class = (address & REGION_OFFSET_MASK) >> SEGMENT_SHIFT;
    if (small_class >= SMALL_CLASS_COUNT) return -1;
    const small_class_head_record& head = heap_state.small_class_head[small_class];
    if (head.segment_key != static_cast<uint32_t>(address >> SEGMENT_KEY_SHIFT) || head.units == 0)
        return -1;
    return static_cast<int>(small_class);
}

}  // namespace tarnheap
