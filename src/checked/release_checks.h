// What the checked build does as the program gives a block back to free or realloc: the address
// must start a block handed out, and the bytes after those asked for must be as the hand-out
// left them; once released, the block is filled, so that its hand-out can tell a write after
// the release.
#pragma once

#include <cstdint>

#include "checked/block_lookup.h"

namespace tarnheap {

// The block `address` names; stops the program unless it starts a block handed out and its
// guard is intact. Null and the C runtime's blocks come back as foreign.
checked_block check_release(uint64_t address);

// The heap has released `block` (found by check_release): fills it and records the release.
void record_release(const checked_block& block);

}  // namespace tarnheap
