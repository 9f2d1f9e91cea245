// A pool of live blocks in which each step frees one, chosen at random, and puts a fresh one in
// its place: the shape of the random-pool, large-pool and calloc-mix workloads.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "fixed_random.h"

namespace workload {

template <unsigned COUNT>
struct block_pool {
    void* blocks[COUNT];
    fixed_random draws;
    void* (*make)(fixed_random& draws);  // a fresh block, its size drawn from `draws`

    void fill() {
        for (void*& block : blocks) block = make(draws);
    }

    void replace(uint64_t steps) {
        for (uint64_t i = 0; i < steps; ++i) {
            void*& block = blocks[draw_below(draws, COUNT)];
            std::free(block);
            block = make(draws);
        }
    }

    void empty() {
        for (void* block : blocks) std::free(block);
    }
};

}  // namespace workload
