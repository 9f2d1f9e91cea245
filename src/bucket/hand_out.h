// The last step of both bucket-area allocators: what the mode does to a block.
#pragma once

#include <cstdint>
#include <cstring>

#include "bucket/alloc_mode.h"
#include "state/compiler.h"

namespace tarnheap {

inline constexpr unsigned PREFETCH_LINES = 4;

TARNHEAP_HOT void* hand_out(uint64_t address, uint64_t size, alloc_mode mode) {
    auto* block = reinterpret_cast<char*>(address);
    if (mode == MODE_MALLOC) {
        // The caller is about to write the block's first lines.
        for (unsigned line = 0; line < PREFETCH_LINES; ++line)
            __builtin_prefetch(block + 64 * line, 0, 1);
    } else if (mode == MODE_CALLOC) {
        std::memset(block, 0, size);
    }
    return block;
}

}  // namespace tarnheap
