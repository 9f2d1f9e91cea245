// The workloads in the order the driver lists and reports them. Full runs are sized so that
// each workload takes well under a second on the fast heaps; the time cap of the driver bounds
// the slow ones.
#include "workloads.h"

namespace workload {

const workload_record WORKLOADS[WORKLOAD_COUNT] = {
    {"pairs_16", "malloc and free of 16 bytes, another one live", 20'000'000, 1, 1,
     neighbour_set_up<16>, small_pairs<16>, neighbour_tear_down},
    {"pairs_64", "malloc and free of 64 bytes, another one live", 20'000'000, 1, 1,
     neighbour_set_up<64>, small_pairs<64>, neighbour_tear_down},
    {"pairs_256", "malloc and free of 256 bytes, another one live", 20'000'000, 1, 1,
     neighbour_set_up<256>, small_pairs<256>, neighbour_tear_down},
    {"lifo_batch", "1000 blocks of 8 to 256 bytes, freed newest first (per pair)", 20'000, 1, 1000,
     lifo_set_up, lifo_batches, no_tear_down},
    {"calloc_256", "calloc of 256 bytes and free", 10'000'000, 1, 1, no_set_up, calloc_pairs,
     no_tear_down},
    {"random_pool", "10000 live blocks of 1 to 4096 bytes, one replaced per op", 5'000'000, 1, 1,
     random_pool_set_up, random_pool_steps, random_pool_tear_down},
    {"realloc_growth", "doubling by realloc from 16 bytes to 1 MiB (per realloc)", 20'000, 1, 16,
     no_set_up, realloc_growth, no_tear_down},
    {"pairs_4k", "malloc and free of 4 KiB, another one live", 10'000'000, 1, 1,
     neighbour_set_up<4096>, large_pairs<4096>, neighbour_tear_down},
    {"pairs_32k", "malloc and free of 32 KiB, another one live", 5'000'000, 1, 1,
     neighbour_set_up<32768>, large_pairs<32768>, neighbour_tear_down},
    {"pairs_256k", "malloc and free of 256 KiB, another one live", 1'000'000, 1, 1,
     neighbour_set_up<262144>, large_pairs<262144>, neighbour_tear_down},
    {"pairs_1m", "malloc and free of 1 MiB, another one live", 1'000'000, 1, 1,
     neighbour_set_up<1048576>, large_pairs<1048576>, neighbour_tear_down},
    {"large_pool", "64 live blocks of 4 KiB to 1 MiB, one replaced per op", 1'000'000, 1, 1,
     large_pool_set_up, large_pool_steps, large_pool_tear_down},
    // At least 2000 steps: about 400 requests in the 700 KiB to 1 MiB band, past the 200 after
    // which a heap may serve that band from memory known to be zero.
    {"calloc_mix", "64 live calloc blocks: 8 B to 256 B, 1 to 32 KiB, 700 KiB to 1 MiB", 200'000,
     2000, 1, calloc_mix_set_up, calloc_mix_steps, calloc_mix_tear_down},
    {"size_mix", "request sizes recorded from a real program, replayed in a pool", 5'000'000, 1, 1,
     size_mix_set_up, size_mix_steps, size_mix_tear_down},
};

}  // namespace workload
