// Workloads of small blocks: the fast paths of every heap, where a pair costs a few
// nanoseconds and any extra instruction shows.
#include <cstdlib>

#include "block_pool.h"
#include "block_touch.h"
#include "fixed_random.h"
#include "workloads.h"

namespace workload {

namespace {

void* neighbour;

}  // namespace

template <uint64_t BYTES>
void neighbour_set_up() {
    neighbour = checked(std::malloc(BYTES), "malloc", BYTES);
    touch_first(neighbour);
}
template void neighbour_set_up<16>();
template void neighbour_set_up<64>();
template void neighbour_set_up<256>();
template void neighbour_set_up<4096>();
template void neighbour_set_up<32768>();
template void neighbour_set_up<262144>();
template void neighbour_set_up<1048576>();

void neighbour_tear_down() {
    std::free(neighbour);
}

template <uint64_t BYTES>
void small_pairs(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        void* block = checked(std::malloc(BYTES), "malloc", BYTES);
        touch_first(block);
        std::free(block);
    }
}
template void small_pairs<16>(uint64_t);
template void small_pairs<64>(uint64_t);
template void small_pairs<256>(uint64_t);

namespace {

constexpr unsigned LIFO_BATCH = 1000;
uint32_t lifo_sizes[LIFO_BATCH];
void* lifo_blocks[LIFO_BATCH];

// Block sizes of 1 to 4096 bytes: mostly above the small classes of most heaps, so the pool
// stresses their medium paths and their reuse of freed space.
constexpr unsigned RANDOM_POOL_BLOCKS = 10000;
constexpr uint64_t RANDOM_POOL_MAX_BYTES = 4096;
block_pool<RANDOM_POOL_BLOCKS> random_pool{
    {}, {0x9e3779b97f4a7c15ULL}, [](fixed_random& draws) {
        uint64_t bytes = 1 + draw_below(draws, RANDOM_POOL_MAX_BYTES);
        void* block = checked(std::malloc(bytes), "malloc", bytes);
        touch_first(block);
        return block;
    }};

}  // namespace

void lifo_set_up() {
    fixed_random random{0x0123456789abcdefULL};
    for (uint32_t& size : lifo_sizes) size = 8 + static_cast<uint32_t>(draw_below(random, 249));
}

// One step is a batch: 1000 blocks of 8 to 256 bytes, then their release newest first.
void lifo_batches(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        for (unsigned b = 0; b < LIFO_BATCH; ++b) {
            lifo_blocks[b] = checked(std::malloc(lifo_sizes[b]), "malloc", lifo_sizes[b]);
            touch_first(lifo_blocks[b]);
        }
        for (unsigned b = LIFO_BATCH; b-- > 0;) std::free(lifo_blocks[b]);
    }
}

void calloc_pairs(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        void* block = checked(std::calloc(1, 256), "calloc", 256);
        touch_first(block);
        std::free(block);
    }
}

// One step replaces one block, chosen at random, by a block of a random size.
void random_pool_set_up() {
    random_pool.fill();
}
void random_pool_steps(uint64_t steps) {
    random_pool.replace(steps);
}
void random_pool_tear_down() {
    random_pool.empty();
}

}  // namespace workload
