// free: the owner of a block follows from its address alone, tested in this order: a small
// class's segment, the bucket area, the zeroed region, the bootstrap arena; anything else
// belongs to the C runtime's allocator.
#include "small/release.h"

#include "api/entry_names.h"
#include "bucket/bucket_release.h"
#include "bucket/group_position.h"
#include "small/small_class.h"

namespace tarnheap {

void release_outside_small(uint64_t address) {
    group_position position = locate_in_use_group(address);
    if (group_descriptor_record* descriptor = position.descriptor) {
        if (descriptor->bucket.unit_size != 0) return release_unit(position.group, position.offset);
        if (descriptor->large.run_groups != 0) return release_large_run(position.group);
    }
    uint64_t zeroed_offset;
    if (in_zeroed_region(address, &zeroed_offset))
        return release_zeroed_block(address, zeroed_offset);
    // Bootstrap pieces are never reused.
    if (in_bootstrap_arena(address)) return;
    // Null passes every test above, and free(null) does nothing.
    if (address != 0 && heap_state.fallback_free != nullptr)
        heap_state.fallback_free(reinterpret_cast<void*>(address));
}

namespace {

// The common case, a small block with room on its stack, is one head load, one slot store and
// the depth update; everything else leaves through one out-of-line call. Null is never a small
// block (no class in use has the segment key 0), so its test waits until that call.
TARNHEAP_HOT void release_address(uint64_t address) {
    int small_class = small_class_owning(address);
    if (small_class >= 0) return push_small_block(static_cast<unsigned>(small_class), address);
    release_outside_small(address);
}

}  // namespace

void release_block(uint64_t address) {
    release_address(address);
}

}  // namespace tarnheap

extern "C" TARNHEAP_EXPORT TARNHEAP_LINE_ALIGNED void TARNHEAP_ENTRY(free)(void* block) {
    tarnheap::release_address(reinterpret_cast<uint64_t>(block));
}
