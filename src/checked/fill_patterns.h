// What the checked build writes where the program must not write, and how it reads it back.
#pragma once

#include <cstdint>
#include <cstring>

namespace tarnheap {

// Over a released block, until it is handed out again.
inline constexpr uint8_t RELEASED_BYTE = 0xdf;
// After the bytes asked for, up to the end of the block.
inline constexpr uint8_t GUARD_BYTE = 0xfb;

// The fill of a released block and the guard after a block's bytes cover at most this much: it
// catches the writes that go astray near a block without touching every page of a block of
// gigabytes.
inline constexpr uint64_t CHECKED_BYTES_MAX = 0x10000;

// The offset of the first byte of the `length` bytes at `address` that is not `expected`, or
// `length` when there is none. Whole 64-byte spans are compared first, in a way the compiler
// turns into vector instructions: released blocks of 64 KiB are read on every hand-out.
inline uint64_t first_changed_byte(uint64_t address, uint64_t length, uint8_t expected) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(address);
    uint64_t pattern = uint64_t{0x0101010101010101} * expected;
    uint64_t at = 0;
    for (; at + 64 <= length; at += 64) {
        uint64_t differences = 0;
        for (unsigned word = 0; word < 8; ++word) {
            uint64_t value;
            std::memcpy(&value, bytes + at + 8 * word, sizeof value);
            differences |= value ^ pattern;
        }
        if (differences != 0) break;
    }
    for (; at + 8 <= length; at += 8) {
        uint64_t value;
        std::memcpy(&value, bytes + at, sizeof value);
        if (value != pattern) break;
    }
    for (; at < length; ++at)
        if (bytes[at] != expected) return at;
    return length;
}

inline uint64_t bytes_checked(uint64_t bytes) {
    return bytes < CHECKED_BYTES_MAX ? bytes : CHECKED_BYTES_MAX;
}

}  // namespace tarnheap
