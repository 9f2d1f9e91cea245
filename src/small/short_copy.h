#pragma once

#include <cstddef>
#include <cstring>

#include "state/compiler.h"

namespace tarnheap {

// A fixed-size head copy and a fixed-size tail copy ending at `bytes`, overlapping as needed.
template <size_t HEAD, size_t TAIL>
TARNHEAP_HOT void copy_head_and_tail(char* to, const char* from, size_t bytes) {
    std::memcpy(to, from, HEAD);
    std::memcpy(to + bytes - TAIL, from + bytes - TAIL, TAIL);
}

// Copies a whole small block of 4 to 256 bytes (a multiple of 4) in size tiers, each two
// fixed-size copies: no loop and no call.
TARNHEAP_HOT void short_copy(void* to, const void* from, size_t bytes) {
    auto* dst = static_cast<char*>(to);
    auto* src = static_cast<const char*>(from);
    if (bytes <= 8) return copy_head_and_tail<4, 4>(dst, src, bytes);
    if (bytes <= 16) return copy_head_and_tail<8, 8>(dst, src, bytes);
    if (bytes <= 32) return copy_head_and_tail<16, 16>(dst, src, bytes);
    if (bytes <= 64) return copy_head_and_tail<32, 32>(dst, src, bytes);
    if (bytes <= 128) return copy_head_and_tail<64, 64>(dst, src, bytes);
    if (bytes <= 192) return copy_head_and_tail<128, 64>(dst, src, bytes);
    copy_head_and_tail<128, 128>(dst, src, bytes);
}

}  // namespace tarnheap
