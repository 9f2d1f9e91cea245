// Unaligned little-endian loads and stores of bitmap words at any byte offset.
#pragma once

#include <cstdint>
#include <cstring>

namespace tarnheap {

inline uint64_t load_word(const uint8_t* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline uint32_t load_half_word(const uint8_t* at) {
    uint32_t half;
    std::memcpy(&half, at, sizeof half);
    return half;
}

inline void store_word(uint8_t* at, uint64_t word) {
    std::memcpy(at, &word, sizeof word);
}

}  // namespace tarnheap
