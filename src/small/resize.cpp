// realloc: the old block's usable size follows from its address by the same area tests as
// free. A block stays where it is whenever the new size fits and the waste is tolerable;
// otherwise it moves. There is no growth in place.
#include <cstddef>
#include <cstring>

#include "api/entry_names.h"
#include "api/out_of_memory.h"
#include "bucket/bucket_release.h"
#include "bucket/slow_paths.h"
#include "small/release.h"
#include "small/short_copy.h"
#include "small/small_class.h"
#include "small/usable_size.h"

namespace tarnheap {
namespace {

// A block of at least this many bytes moves to shrink only when the new size is at most a
// 256th of it; smaller blocks never move to shrink.
constexpr uint64_t SHRINK_MOVE_MIN = 35329;
constexpr uint64_t SHRINK_RATIO = 256;
void* resize_allocate(uint64_t size) {
    return allocate_block(size, MODE_RESIZE);
}

void* resize_small(void* block, unsigned small_class, uint64_t size) {
    uint64_t old_size = small_usable_size(small_class);
    if (old_size >= size) return block;
    void* moved = resize_allocate(size);
    if (moved == nullptr) return out_of_memory();
    short_copy(moved, block, old_size);
    push_small_block(small_class, reinterpret_cast<uint64_t>(block));
    return moved;
}

bool stays_in_place(uint64_t old_size, uint64_t size) {
    if (size == old_size) return true;
    return size < old_size && (old_size < SHRINK_MOVE_MIN || size * SHRINK_RATIO > old_size);
}

void* resize_owned(void* block, uint64_t old_size, uint64_t size) {
    if (stays_in_place(old_size, size)) return block;
    void* moved = resize_allocate(size);
    if (moved == nullptr) return out_of_memory();
    std::memcpy(moved, block, old_size < size ? old_size : size);
    release_outside_small(reinterpret_cast<uint64_t>(block));
    return moved;
}

void* resize_foreign(void* block, uint64_t size) {
    if (heap_state.fallback_realloc != nullptr)
        if (void* moved = heap_state.fallback_realloc(block, size)) return moved;
    return out_of_memory();
}

}  // namespace
}  // namespace tarnheap

using namespace tarnheap;

extern "C" TARNHEAP_EXPORT void* TARNHEAP_ENTRY(realloc)(void* block, size_t size) {
    if (block == nullptr) {
        // As malloc: a request for 0 bytes never gets a block, but for a byte in the drop-in.
        if constexpr (LINUX_DROP_IN) size += size == 0;
        void* fresh = size != 0 ? resize_allocate(size) : nullptr;
        return fresh != nullptr ? fresh : out_of_memory();
    }
    uint64_t address = reinterpret_cast<uint64_t>(block);
    // Releasing and reporting exhaustion at once is how this heap has always answered a
    // request for nothing.
    if (size == 0) {
        release_block(address);
        // The drop-in answers as the C library does: null, with errno as it was.
        if constexpr (LINUX_DROP_IN) return nullptr;
        return out_of_memory();
    }
    int small_class = small_class_owning(address);
    if (small_class >= 0) return resize_small(block, static_cast<unsigned>(small_class), size);
    uint64_t old_size = usable_size_outside_small(address);
    if (old_size == 0) return resize_foreign(block, size);
    if (in_bootstrap_arena(address) && old_size >= size) return block;
    return resize_owned(block, old_size, size);
}
