// Writes into every block a workload receives and keeps its address alive, so that the compiler
// can neither drop a malloc/free pair nor skip the first access that a real program makes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace workload {

inline volatile uintptr_t address_sink;

inline void touch_first(void* block) {
    address_sink = reinterpret_cast<uintptr_t>(block);
    static_cast<volatile unsigned char*>(block)[0] = 1;
}

// Large blocks: their first and last byte, which often lie on different pages.
inline void touch_ends(void* block, size_t bytes) {
    touch_first(block);
    static_cast<volatile unsigned char*>(block)[bytes - 1] = 1;
}

}  // namespace workload
