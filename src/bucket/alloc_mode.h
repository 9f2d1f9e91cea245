#pragma once

namespace tarnheap {

// What the bucket-area allocators do to a block before handing it out.
enum alloc_mode : int {
    MODE_MALLOC = 1,  // prefetch its first lines; large blocks at a random offset in their run
    MODE_CALLOC = 2,  // zero the bytes asked for; large blocks at a random offset
    MODE_RESIZE = 3,  // nothing: the caller copies into it; large blocks at the run's first byte
};

}  // namespace tarnheap
