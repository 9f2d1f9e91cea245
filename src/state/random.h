#pragma once

#include <cstdint>

#include "state/heap_state.h"

namespace tarnheap {

// One step of the layout generator; the draw is the high half of the new state.
inline uint32_t draw_random() {
    heap_state.rng_state = heap_state.rng_state * RNG_MULTIPLIER + RNG_INCREMENT;
    return static_cast<uint32_t>(heap_state.rng_state >> 32);
}

}  // namespace tarnheap
