// Length classes of live runs, and the run length each class stands for.
#pragma once

#include <cstdint>

#include "runs/run_search_state.h"

namespace tarnheap {

// The class of a run of `length` bits at the tier that serves it (0 above 32768 bits: such runs
// are not counted).
constexpr unsigned run_length_class(uint64_t length) {
    if (length <= 63) return static_cast<unsigned>(length);
    if (length <= 504) return 63 + static_cast<unsigned>((length + 7) / 8);
    if (length <= 4032) return 126 + static_cast<unsigned>((length + 63) / 64);
    if (length <= 32768) return 189 + static_cast<unsigned>((length + 511) / 512);
    return 0;
}

// The run length of class c in bits; 0 for the numbers whose lengths a lower tier serves.
constexpr uint64_t run_class_length(unsigned length_class) {
    if (length_class <= 63) return length_class;
    if (length_class < 71) return 0;
    if (length_class <= 126) return 8 * (length_class - 63);
    if (length_class < 134) return 0;
    if (length_class <= 189) return 64 * (length_class - 126);
    if (length_class < 197) return 0;
    return 512 * (length_class - 189);
}

// The start estimates rely on classes ascending with their lengths: the classes shorter than a
// run are a prefix of the counters.
static_assert([] {
    uint64_t previous = 0;
    for (unsigned c = 1; c <= RUN_CLASS_COUNT; ++c) {
        uint64_t length = run_class_length(c);
        if (length == 0) continue;
        if (length <= previous || run_length_class(length) != c) return false;
        previous = length;
    }
    return previous == 32768;
}());

}  // namespace tarnheap
