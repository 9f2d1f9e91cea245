// The list of groups of each bucket class: the class's group_index in bucket_class_table is the
// head, the descriptors' prev_group / next_group the links, and group index 0 the end. Every
// group with a free unit is on its class's list; a full group leaves it (detached) when an
// allocation finds it at the head, and comes back at the head when a unit is released.
#pragma once

#include <cstdint>

#include "state/heap_state.h"

namespace tarnheap {

// Detaches full groups from the head of the class's list until the head has a free unit.
// Returns that head, or 0 when the list ran empty.
uint32_t first_group_with_room(unsigned bucket_class);

// Puts `group` at the head of its class's list.
inline void push_group(unsigned bucket_class, uint32_t group) {
    uint32_t& head = heap_state.bucket_class_table[bucket_class].group_index;
    bucket_group_view& view = heap_state.group_descriptor[group].bucket;
    view.prev_group = 0;
    view.next_group = head;
    if (head != 0) heap_state.group_descriptor[head].bucket.prev_group = group;
    head = group;
}

// Takes `group` off its class's list and clears its links.
void unlink_group(unsigned bucket_class, uint32_t group);

// Makes the claimed and committed `group` an empty bucket group of the class and the head of
// the class's list, which is empty at this point.
void start_bucket_group(unsigned bucket_class, uint32_t group);

}  // namespace tarnheap
