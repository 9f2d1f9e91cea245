#include "bucket/class_list.h"

#include "state/heap_state.h"
#include "state/reciprocal.h"

namespace tarnheap {
namespace {

bucket_group_view& group_view(uint32_t group) {
    return heap_state.group_descriptor[group].bucket;
}

}  // namespace

void unlink_group(unsigned bucket_class, uint32_t group) {
    uint32_t& head = heap_state.bucket_class_table[bucket_class].group_index;
    bucket_group_view& view = group_view(group);
    if (head == group) head = view.next_group;
    if (view.prev_group != 0) group_view(view.prev_group).next_group = view.next_group;
    if (view.next_group != 0) group_view(view.next_group).prev_group = view.prev_group;
    view.prev_group = 0;
    view.next_group = 0;
}

void start_bucket_group(unsigned bucket_class, uint32_t group) {
    bucket_class_entry& entry = heap_state.bucket_class_table[bucket_class];
    bucket_group_view& view = group_view(group);
    view.run_groups = 1;
    view.prev_group = 0;
    view.next_group = 0;
    view.group_base = heap_state.bucket_area_base + group * GROUP_BYTES;
    view.unit_size = static_cast<uint16_t>(entry.bucket_size);
    view.size_reciprocal = reciprocal_of(entry.bucket_size);
    for (uint64_t& word : view.unit_bitmap) word = 0;
    view.class_index = static_cast<uint8_t>(bucket_class);
    view.detached = 0;
    uint64_t units = GROUP_BYTES / entry.bucket_size;
    view.unit_count = static_cast<uint16_t>(units < UNIT_BITMAP_BITS ? units : UNIT_BITMAP_BITS);
    view.free_units = view.unit_count;
    entry.group_index = group;
}

}  // namespace tarnheap
