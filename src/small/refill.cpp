#include "platform/commit.h"
#include "small/small_class.h"

namespace tarnheap {

TARNHEAP_COLD uint64_t small_class_refill(unsigned small_class) {
    small_class_record& descriptor = heap_state.small_class[small_class];
    small_class_head_record& head = heap_state.small_class_head[small_class];
    int32_t batch = descriptor.remaining < static_cast<int32_t>(REFILL_BATCH)
                        ? descriptor.remaining
                        : static_cast<int32_t>(REFILL_BATCH);
    // The whole segment at once, once: a failed commit is reported and not retried.
    if (descriptor.uncommitted_base != 0) {
        commit_range(descriptor.uncommitted_base, SEGMENT_BYTES);
        descriptor.uncommitted_base = 0;
    }
    uint32_t* stack = heap_state.free_index_stack[small_class];
    uint64_t* bitmap = descriptor.bitmap;
    uint64_t first_offset = descriptor.first_block & REGION_OFFSET_MASK;
    uint32_t word = descriptor.cursor;
    // remaining guarantees `batch` clear bits at or above the cursor: no end test. The lowest
    // blocks go highest on the stack, so that pops hand them out in ascending order.
    for (int32_t slot = batch - 1; slot >= 0; --slot) {
        while (bitmap[word] == ~uint64_t{0}) ++word;
        unsigned bit = static_cast<unsigned>(__builtin_ctzll(~bitmap[word]));
        bitmap[word] |= uint64_t{1} << bit;
        uint64_t block = uint64_t{word} * 64 + bit;
        stack[slot] = static_cast<uint32_t>((block * descriptor.block_size + first_offset) >>
                                            BLOCK_OFFSET_SHIFT);
    }
    descriptor.remaining -= batch;
    // The last word may still hold clear bits: the next refill starts in it.
    descriptor.cursor = word;
    head.depth = static_cast<int16_t>(batch - 1);
    uint64_t block = small_block_address(head.segment_key, stack[batch - 1]);
    if constexpr (CHECKED) check_small_hand_out(block);
    return block;
}

}  // namespace tarnheap
