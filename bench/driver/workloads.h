// The allocation workloads: each is a set-up, a step repeated as often as the run asks, and a
// tear-down, all calling only malloc, calloc, realloc and free.
#pragma once

#include <cstdint>

namespace workload {

struct workload_record {
    const char* name;
    const char* summary;
    uint64_t full_steps;    // steps of a full run, before scaling
    uint64_t min_steps;     // a run never times fewer, whatever its scale or time cap
    uint32_t ops_per_step;  // the operations one step counts for (a batch of 1000 pairs is 1000)
    void (*set_up)();
    void (*run_steps)(uint64_t steps);
    void (*tear_down)();
};

inline constexpr unsigned WORKLOAD_COUNT = 14;
extern const workload_record WORKLOADS[WORKLOAD_COUNT];

// Stops the process with a message: a heap returned null or handed out a block that broke its
// contract (a calloc block that is not zero).
[[noreturn]] void workload_failure(const char* what, uint64_t bytes);

inline void* checked(void* block, const char* what, uint64_t bytes) {
    if (block == nullptr) workload_failure(what, bytes);
    return block;
}

inline void no_set_up() {}
inline void no_tear_down() {}

// The pairs workloads keep one other block of their size live throughout, as a program does:
// a heap then cannot hand back a whole empty page, group or span on every free
// (small_workloads.cpp).
template <uint64_t BYTES>
void neighbour_set_up();
void neighbour_tear_down();

// Small blocks (small_workloads.cpp).
template <uint64_t BYTES>
void small_pairs(uint64_t steps);
void lifo_set_up();
void lifo_batches(uint64_t steps);
void calloc_pairs(uint64_t steps);
void random_pool_set_up();
void random_pool_steps(uint64_t steps);
void random_pool_tear_down();

// Medium and large blocks (large_workloads.cpp).
void realloc_growth(uint64_t steps);
template <uint64_t BYTES>
void large_pairs(uint64_t steps);
void large_pool_set_up();
void large_pool_steps(uint64_t steps);
void large_pool_tear_down();
void calloc_mix_set_up();
void calloc_mix_steps(uint64_t steps);
void calloc_mix_tear_down();

// The replayed size mix of a real program (size_mix_workload.cpp).
void size_mix_set_up();
void size_mix_steps(uint64_t steps);
void size_mix_tear_down();

}  // namespace workload
