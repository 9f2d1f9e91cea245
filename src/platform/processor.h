// The two processor facts the heap reads: the vendor string and the time-stamp counter.
#pragma once

#include <cpuid.h>
#include <x86intrin.h>

#include <cstdint>
#include <cstring>

#include "state/build_config.h"

namespace tarnheap {

// CPUID leaf 0: EBX, EDX, ECX, four bytes each, little-endian. A build with a simulated vendor
// answers that string instead, so that the heap runs on ordinary processors under test.
inline void read_processor_vendor(char vendor[12]) {
    if constexpr (HAS_SIMULATED_VENDOR) {
        std::memcpy(vendor, SIMULATED_VENDOR, 12);
    } else {
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        __cpuid_count(0, 0, eax, ebx, ecx, edx);
        std::memcpy(vendor, &ebx, 4);
        std::memcpy(vendor + 4, &edx, 4);
        std::memcpy(vendor + 8, &ecx, 4);
    }
}

inline uint64_t read_timestamp_counter() {
    return __rdtsc();
}

// CPUID leaf 1, ECX bit 23: whether the bit-run finders may use the POPCNT instruction, which
// the x86-64 baseline lacks.
inline bool processor_has_popcnt() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_POPCNT) != 0;
}

}  // namespace tarnheap
