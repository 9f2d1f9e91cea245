// What a block outside the small classes holds: resize keeps a block that still fits, and the
// investigations of the heap's state count what each block was rounded to.
#pragma once

#include <cstdint>

namespace tarnheap {

// The usable size of a block outside the small classes, 0 when the heap does not own it.
uint64_t usable_size(uint64_t address);

}  // namespace tarnheap
