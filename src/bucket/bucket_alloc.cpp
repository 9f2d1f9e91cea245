// bucket_alloc: a unit of a bucket class, from the class's list of groups or from a new group
// taken from the run cache or claimed in the group bitmap.
#include "bucket/bucket_alloc.h"

#include "bucket/bucket_class.h"
#include "bucket/class_list.h"
#include "bucket/commit_groups.h"
#include "bucket/hand_out.h"
#include "bucket/run_cache.h"
#include "bucket/run_length.h"

namespace tarnheap {
namespace {

int64_t claim_one_group() {
    run_finder one_group = heap_state.run_length_table[ONE_GROUP_ENTRY].finder;
    int64_t group = one_group(heap_state.group_bitmap, GROUP_COUNT, &heap_state.group_search_state);
    if (group >= 0 || heap_state.cached_groups == 0) return group;
    cache_flush();
    return one_group(heap_state.group_bitmap, GROUP_COUNT, &heap_state.group_search_state);
}

// A fresh group for the class, most recently freed first, made the class's head; 0 when none
// can be had.
uint32_t new_group(unsigned bucket_class) {
    if (heap_state.init_state != INIT_READY) return 0;
    int64_t group;
    // Any one-group run will do: an emptied group of any class or a released one-group block.
    if (group_descriptor_record* cached =
            heap_state.run_length_table[ONE_GROUP_ENTRY].cached_runs) {
        group = cached->cached.first_group;
        cache_take(*cached);
    } else {
        cache_trim();
        group = claim_one_group();
    }
    // Group 0 belongs to the warm-up and stands for no group.
    if (group <= 0) return 0;
    commit_groups(static_cast<uint32_t>(group), 1);
    start_bucket_group(bucket_class, static_cast<uint32_t>(group));
    return static_cast<uint32_t>(group);
}

}  // namespace

void* bucket_alloc_after_miss(unsigned bucket_class, uint64_t size, alloc_mode mode) {
    uint32_t group = first_group_with_room(bucket_class);
    if (group == 0) group = new_group(bucket_class);
    if (group == 0) return nullptr;
    return hand_out(claim_in_group(group, bucket_class), size, mode);
}

void* bucket_alloc(uint64_t size, alloc_mode mode) {
    unsigned bucket_class = bucket_class_of(size);
    bucket_class_entry& entry = heap_state.bucket_class_table[bucket_class];
    bucket_group_view& head = heap_state.group_descriptor[entry.group_index].bucket;
    // Descriptor 0 never has a free unit, so an empty class falls through here too.
    if (head.free_units == 0) return bucket_alloc_after_miss(bucket_class, size, mode);
    return hand_out(claim_unit(head, entry.bucket_size), size, mode);
}

}  // namespace tarnheap
