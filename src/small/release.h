#pragma once

#include <cstdint>

#include "bucket/group_position.h"

namespace tarnheap {

// free: finds the block's owner from its address and gives the block back there; null does
// nothing. Used by free and by resize for the old block.
void release_block(uint64_t address);

// The same for an address already known not to be a small block.
void release_outside_small(uint64_t address);

// The descriptor of the bucket-area group holding `address`, when the address lies in the
// bucket area and the descriptor describes an in-use group or run there; else null.
inline group_descriptor_record* in_use_descriptor(uint64_t address, uint32_t* group) {
    group_position position = locate_in_use_group(address);
    *group = position.group;
    return position.descriptor;
}

}  // namespace tarnheap
