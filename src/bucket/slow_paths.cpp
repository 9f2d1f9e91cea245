// The allocation core below the fast paths of malloc and calloc.
//
//   malloc / calloc fast path: a pop from a small class's stack, or a unit claim in the head
//     group of a bucket class (up to 35328 bytes)
//   -> malloc's bucket miss: full head groups leave the list, the next group with room serves
//   -> malloc_slow / calloc_slow (malloc of 257 to 35328 bytes enters at step 2 through
//      malloc_bucket_miss once its class's list is empty; larger ones call run_alloc, step 3,
//      from malloc itself, and come here only for the last resorts)
//        1. small classes: pop, or small_class_refill while the class has blocks never issued
//        2. bucket_alloc: a unit of a bucket class (small requests overflow into classes 0 to 4)
//        3. run_alloc: a run of whole groups, through the run cache and the run finders;
//           calloc first tries the zeroed region for 700 KiB to 1 MiB
//        4. last resorts, by init_state: heap_initialise and start again; the bootstrap arena
//           while initialising; the fallback allocator of the C runtime
#include "bucket/slow_paths.h"

#include <cstring>

#include "bucket/bucket_alloc.h"
#include "small/small_class.h"
#include "state/initialise.h"

namespace tarnheap {

namespace {

void* as_pointer(uint64_t address) {
    return reinterpret_cast<void*>(address);
}

void* calloc_small(uint64_t total) {
    unsigned small_class = CALLOC_CLASS_TABLE.small_class[total >> 4];
    // A total wrapped to 0 gets a class-0 block with its 4 bytes cleared.
    uint64_t zeroed = total != 0 ? total : 4;
    uint64_t popped;
    if (pop_small_block(stack_of(small_class), popped)) {
        std::memset(as_pointer(popped), 0, zeroed);
        return as_pointer(popped);
    }
    if (heap_state.small_class[small_class].remaining <= 0) return nullptr;
    // A refill never returns null: the block is cleared before anything is tested.
    void* block = as_pointer(small_class_refill(small_class));
    std::memset(block, 0, zeroed);
    return block;
}

void* calloc_from_heap(uint64_t total) {
    if (total <= SMALL_MAX)
        if (void* block = calloc_small(total)) return block;
    if (total <= BUCKET_MAX) {
        if (void* block = bucket_alloc(total, MODE_CALLOC)) return block;
        return run_alloc(total, MODE_CALLOC);
    }
    if (total >= ZEROED_MIN && total <= ZEROED_MAX && heap_state.init_state == INIT_READY)
        if (void* block = zeroed_region_alloc(total)) return block;
    if (total <= LARGE_MAX) return run_alloc(total, MODE_CALLOC);
    return nullptr;
}

void* allocate_from_heap(uint64_t size, alloc_mode mode) {
    if (size <= SMALL_MAX)
        if (uint64_t block = take_small_block(small_class_for(size))) return as_pointer(block);
    if (size <= BUCKET_MAX)
        if (void* block = bucket_alloc(size, mode)) return block;
    if (size <= LARGE_MAX) return run_alloc(size, mode);
    return nullptr;
}

}  // namespace

void* bootstrap_alloc(uint64_t size) {
    uint64_t need = (size + 31) & ~uint64_t{15};
    if (BOOTSTRAP_BYTES - heap_state.bootstrap_used < need) return nullptr;
    uint8_t* piece = heap_state.bootstrap_arena + heap_state.bootstrap_used;
    std::memcpy(piece, &need, sizeof need);
    heap_state.bootstrap_used += need;
    return piece + BOOTSTRAP_HEADER;
}

TARNHEAP_COLD void* allocate_last_resort(uint64_t size, alloc_mode mode) {
    if (heap_state.init_state == INIT_NONE) {
        heap_initialise();
        return allocate_block(size, mode);
    }
    if (heap_state.init_state == INIT_RUNNING)
        if (void* block = bootstrap_alloc(size)) return block;
    // A ready heap that has run out of room hands the request to the C runtime.
    return heap_state.fallback_malloc != nullptr ? heap_state.fallback_malloc(size) : nullptr;
}

TARNHEAP_COLD void* allocate_block(uint64_t size, alloc_mode mode) {
    if (void* block = allocate_from_heap(size, mode)) return block;
    return allocate_last_resort(size, mode);
}

void* malloc_bucket_miss(unsigned bucket_class, uint64_t size) {
    if (void* block = bucket_alloc_after_miss(bucket_class, size, MODE_MALLOC)) return block;
    if (void* block = run_alloc(size, MODE_MALLOC)) return block;
    return allocate_last_resort(size, MODE_MALLOC);
}

TARNHEAP_COLD void* malloc_slow(uint64_t size) {
    return allocate_block(size, MODE_MALLOC);
}

TARNHEAP_COLD void* calloc_slow(uint64_t count, uint64_t size) {
    // The product wraps unchecked, as in calloc itself: the wrapped total is what is served.
    uint64_t total = (count * size + 15) & ~uint64_t{15};
    for (;;) {
        if (void* block = calloc_from_heap(total)) return block;
        if (heap_state.init_state == INIT_NONE) {
            heap_initialise();
            continue;
        }
        if (heap_state.init_state == INIT_RUNNING) {
            if (void* block = bootstrap_alloc(total)) {
                std::memset(block, 0, total);
                return block;
            }
        }
        if (heap_state.fallback_calloc != nullptr)
            if (void* block = heap_state.fallback_calloc(count, size)) return block;
        if (heap_state.fallback_malloc != nullptr) {
            if (void* block = heap_state.fallback_malloc(total)) {
                std::memset(block, 0, total);
                return block;
            }
        }
        return nullptr;
    }
}

}  // namespace tarnheap
