// The workloads' generator: fixed seeds and the same sequence on every platform and allocator,
// so that every heap is handed exactly the same requests.
#pragma once

#include <cstdint>

namespace workload {

struct fixed_random {
    uint64_t state;
};

// xorshift64*: a handful of instructions per draw, cheap beside the allocation it drives.
inline uint64_t next_draw(fixed_random& random) {
    random.state ^= random.state >> 12;
    random.state ^= random.state << 25;
    random.state ^= random.state >> 27;
    return random.state * 0x2545f4914f6cdd1dULL;
}

// A draw in [0, bound), by multiply-high: no division in the timed loops.
inline uint64_t draw_below(fixed_random& random, uint64_t bound) {
    return static_cast<uint64_t>((static_cast<unsigned __int128>(next_draw(random)) * bound) >> 64);
}

}  // namespace workload
