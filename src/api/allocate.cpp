// The exported malloc and calloc: branch-only fast paths over the state, with every miss sent
// out of line to the slow paths. Neither tests init_state: before initialisation every stack
// depth and free count is zero, so every fast path misses by construction.
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "api/entry_names.h"
#include "api/out_of_memory.h"
#include "bucket/bucket_alloc.h"
#include "bucket/bucket_class.h"
#include "bucket/class_list.h"
#include "bucket/hand_out.h"
#include "bucket/slow_paths.h"
#include "small/small_class.h"

namespace tarnheap {

TARNHEAP_COLD void* out_of_memory() {
    errno = ENOMEM;
    return nullptr;
}

namespace {

TARNHEAP_COLD void* malloc_miss(size_t size) {
    if (void* block = malloc_slow(size)) return block;
    return out_of_memory();
}

// The head group of the class is full. Where the class's groups stay almost full this is
// common: the full heads leave the list here, and only a list run empty goes on to the slow path.
TARNHEAP_OUT_OF_LINE void* bucket_miss(unsigned bucket_class, size_t size) {
    if (uint32_t group = first_group_with_room(bucket_class))
        return hand_out(claim_in_group(group, bucket_class), size, MODE_MALLOC);
    if (void* block = malloc_bucket_miss(bucket_class, size)) return block;
    return out_of_memory();
}

// Straight to the runs: a layer of calls between here and run_alloc costs a large pair about a
// nanosecond.
TARNHEAP_OUT_OF_LINE void* large_request(size_t size) {
    if (size <= LARGE_MAX)
        if (void* block = run_alloc(size, MODE_MALLOC)) return block;
    if (void* block = allocate_last_resort(size, MODE_MALLOC)) return block;
    return out_of_memory();
}

TARNHEAP_COLD void* calloc_miss(size_t count, size_t size) {
    if (void* block = calloc_slow(count, size)) return block;
    return out_of_memory();
}

// A request for nothing never gets a block, by design. Programs written for the C library take
// that null for exhaustion, so the Linux drop-in serves the request as one for a byte.
TARNHEAP_COLD void* malloc_of_nothing() {
    if constexpr (LINUX_DROP_IN) return malloc_miss(1);
    return out_of_memory();
}

TARNHEAP_COLD void* calloc_of_nothing() {
    if constexpr (LINUX_DROP_IN) return calloc_miss(1, 1);
    return out_of_memory();
}

// A unit of bucket class j from its head group, or 0 when the group has none free (group 0,
// the absence of a group, never has).
TARNHEAP_HOT uint64_t claim_from_class(unsigned bucket_class) {
    bucket_class_entry entry = heap_state.bucket_class_table[bucket_class];
    bucket_group_view& group = heap_state.group_descriptor[entry.group_index].bucket;
    if (group.free_units == 0) return 0;
    return claim_unit(group, entry.bucket_size);
}

TARNHEAP_HOT void* popped(const small_stack& stack, size_t size) {
    uint64_t block;
    if (!pop_small_block(stack, block)) return malloc_miss(size);
    // Only a corrupt stack yields address 0: a failure, not a miss.
    return block != 0 ? reinterpret_cast<void*>(block) : out_of_memory();
}

}  // namespace
}  // namespace tarnheap

using namespace tarnheap;

extern "C" TARNHEAP_EXPORT TARNHEAP_LINE_ALIGNED void* TARNHEAP_ENTRY(malloc)(size_t size) {
    // Size step 0 (1 to 4 bytes) is routed to class 0 in both routings and in the zero state,
    // so its route byte answers as the constant would.
    if (size - 1 < ROUTED_STEPS * 4) {
        small_stack stack = stack_of(heap_state.small_class_head[(size - 1) / 4].route);
        prefetch_next_block<1>(stack);
        return popped(stack, size);
    }
    if (size - 1 < SMALL_MAX) {
        small_stack stack = stack_of(medium_small_class(size));
        if (size <= 128)
            prefetch_next_block<2>(stack);
        else
            prefetch_next_block<4>(stack);
        return popped(stack, size);
    }
    if (size - 1 < BUCKET_MAX) {
        unsigned bucket_class = bucket_class_of(size);
        if (uint64_t block = claim_from_class(bucket_class))
            return hand_out(block, size, MODE_MALLOC);
        return bucket_miss(bucket_class, size);
    }
    if (size == 0) return malloc_of_nothing();
    return large_request(size);
}

extern "C" TARNHEAP_EXPORT void* TARNHEAP_ENTRY(calloc)(size_t count, size_t size) {
    if (count == 0 || size == 0) return calloc_of_nothing();
    // Unchecked and wrapping, as designed: a wrapped product is served for its wrapped value.
    // Linux programs check their own arithmetic by it, so the drop-in refuses a product that
    // wraps, and one that rounding up to 16 bytes wraps to 0. Two flag tests, in the drop-in only.
    uint64_t product;
    bool wrapped = __builtin_mul_overflow(count, size, &product);
    if constexpr (LINUX_DROP_IN)
        if (wrapped) return out_of_memory();
    uint64_t total = (product + 15) & ~uint64_t{15};
    if constexpr (LINUX_DROP_IN)
        if (total == 0) return out_of_memory();
    uint64_t block;
    if (total <= SMALL_MAX) {
        if (!pop_small_block(stack_of(CALLOC_CLASS_TABLE.small_class[total >> 4]), block))
            return calloc_miss(count, size);
        if (block == 0) return out_of_memory();
    } else if (total <= BUCKET_MAX) {
        block = claim_from_class(bucket_class_of(total));
        if (block == 0) return calloc_miss(count, size);
    } else {
        return calloc_miss(count, size);
    }
    // A tail call: memset answers the block.
    return std::memset(reinterpret_cast<void*>(block), 0, total);
}
