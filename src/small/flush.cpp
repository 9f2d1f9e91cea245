#include <algorithm>

#include "small/small_class.h"
#include "state/reciprocal.h"

namespace tarnheap {

namespace {

// The block index of one stack entry, without a division per entry.
uint64_t block_index(uint32_t entry, uint64_t key_base, uint64_t first_block, uint32_t reciprocal) {
    return piece_index(key_base + (uint64_t{entry} << BLOCK_OFFSET_SHIFT) - first_block,
                       reciprocal);
}

}  // namespace

TARNHEAP_COLD void flush_free_index_stack(unsigned small_class) {
    small_class_record& descriptor = heap_state.small_class[small_class];
    small_class_head_record& head = heap_state.small_class_head[small_class];
    const uint32_t* stack = heap_state.free_index_stack[small_class];
    uint32_t reciprocal = reciprocal_of(descriptor.block_size);
    uint64_t key_base = uint64_t{head.segment_key} << SEGMENT_KEY_SHIFT;
    uint64_t lowest_word = descriptor.cursor;
    int depth = head.depth;
    // Nothing is tested before it is cleared: a block released twice just clears twice.
    for (int slot = 0; slot < depth; ++slot) {
        uint64_t block = block_index(stack[slot], key_base, descriptor.first_block, reciprocal);
        descriptor.bitmap[block / 64] &= ~(uint64_t{1} << (block % 64));
        lowest_word = std::min(lowest_word, block / 64);
    }
    descriptor.remaining += depth;
    descriptor.cursor = static_cast<uint32_t>(lowest_word);
    head.depth = 0;
}

TARNHEAP_COLD void flush_and_push(uint64_t address) {
    unsigned small_class = static_cast<unsigned>((address & REGION_OFFSET_MASK) >> SEGMENT_SHIFT);
    flush_free_index_stack(small_class);
    heap_state.free_index_stack[small_class][0] = block_offset_of(address);
    heap_state.small_class_head[small_class].depth = 1;
}

}  // namespace tarnheap
