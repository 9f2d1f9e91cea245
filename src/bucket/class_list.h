// The list of groups of each bucket class: the class's group_index in bucket_class_table is the
// head, the descriptors' prev_group / next_group the links, and group index 0 the end. Every
// group with a free unit is on its class's list; a full group leaves it (detached) when an
// allocation finds it at the head, and comes back at the head when a unit is released.
#pragma once

#include <cstdint>

#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

// Takes the full group at the head of a class's list off the list, marked detached: the release
// of one of its units brings it back. A head's prev_group is 0 already. Returns the new head.
TARNHEAP_HOT uint32_t detach_full_head(uint32_t& head) {
    bucket_group_view& view = heap_state.group_descriptor[head].bucket;
    uint32_t next = view.next_group;
    view.detached = 1;
    view.next_group = 0;
    if (next != 0) heap_state.group_descriptor[next].bucket.prev_group = 0;
    head = next;
    return next;
}

// Detaches full groups from the head of the class's list until the head has a free unit.
// Returns that head, or 0 when the list ran empty.
TARNHEAP_HOT uint32_t first_group_with_room(unsigned bucket_class) {
    uint32_t& head = heap_state.bucket_class_table[bucket_class].group_index;
    uint32_t group = head;
    while (group != 0 && heap_state.group_descriptor[group].bucket.free_units == 0)
        group = detach_full_head(head);
    return group;
}

// Puts `group` back at the head of its class's list if it is detached. Where a class's groups
// stay almost full, a release lands in a detached group about as often as not, in random order:
// the choice is made by a mask rather than a branch. A detached group's links are 0 and so is the
// head's prev_group, so the links are set by OR; with the mask 0 every store writes back what it
// read (descriptor 0, the head of an empty list, included).
TARNHEAP_HOT void reattach_if_detached(uint32_t group) {
    bucket_group_view& view = heap_state.group_descriptor[group].bucket;
    uint32_t& head = heap_state.bucket_class_table[view.class_index].group_index;
    uint32_t old_head = head;
    uint32_t detached = 0u - view.detached;
    uint32_t listed = 0u - static_cast<uint32_t>(old_head != 0);
    heap_state.group_descriptor[old_head].bucket.prev_group |= group & detached & listed;
    view.next_group |= old_head & detached;
    head = old_head ^ ((old_head ^ group) & detached);
    view.detached = 0;
}

// Takes `group` off its class's list and clears its links.
void unlink_group(unsigned bucket_class, uint32_t group);

// Makes the claimed and committed `group` an empty bucket group of the class and the head of
// the class's list, which is empty at this point.
void start_bucket_group(unsigned bucket_class, uint32_t group);

}  // namespace tarnheap
