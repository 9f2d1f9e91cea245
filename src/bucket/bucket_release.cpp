// The bucket-area and zeroed-region halves of free.
#include "bucket/bucket_release.h"

#include <cstring>

#include "bucket/class_list.h"
#include "runs/bitmap_access.h"
#include "runs/run_finder_table.h"

namespace tarnheap {

TARNHEAP_COLD void retire_group(uint32_t group) {
    // The group waits in the run cache, still claimed in the group bitmap, for any class or a
    // one-group block.
    unlink_group(heap_state.group_descriptor[group].bucket.class_index, group);
    cache_put(heap_state.group_descriptor[group], 1, ONE_GROUP_ENTRY);
}

void release_zeroed_block(uint64_t address, uint64_t offset) {
    uint64_t slot = offset >> ZEROED_SLOT_SHIFT;
    uint32_t slots = heap_state.zeroed_run_length[slot];
    uint64_t bytes = uint64_t{slots} << ZEROED_SLOT_SHIFT;
    // Blocks leave the region without being cleared: they must be zero before they are free.
    os_memory_ops_record& ops = *heap_state.memory_ops;
    if (ops.zero_range(ops.context, address, bytes) != 0)
        std::memset(reinterpret_cast<void*>(address), 0, bytes);
    run_search_state& search = heap_state.zeroed_search_state;
    if (slot < search.cursor) search.cursor = static_cast<uint32_t>(slot);
    uint8_t* at = heap_state.zeroed_bitmap + slot / 8;
    if (slots <= 63)
        store_word(at, load_word(at) & ~(((uint64_t{1} << slots) - 1) << (slot % 8)));
    else
        std::memset(at, 0, (slots + 7) / 8);
    if (unsigned length_class = run_length_class(slots)) --run_count(search, length_class);
    // Unlike a group run's release, this one never lowers the high-water mark, and it leaves
    // the slot's run length for the next claim of the slot to overwrite.
}

}  // namespace tarnheap
