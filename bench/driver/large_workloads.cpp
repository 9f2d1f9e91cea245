// Workloads of medium and large blocks: growth by realloc, pairs of one size, a pool of large
// blocks and calloc-heavy work, where the cost lies in finding space and in zeroing it.
#include <cstdlib>
#include <initializer_list>

#include "block_pool.h"
#include "block_touch.h"
#include "fixed_random.h"
#include "workloads.h"

namespace workload {

namespace {

constexpr uint64_t GROWTH_START_BYTES = 16;
constexpr uint64_t GROWTH_END_BYTES = uint64_t{1} << 20;

constexpr unsigned LARGE_POOL_BLOCKS = 64;
// Sizes of 4 KiB to 1 MiB, uniform within each of eight doublings: as many blocks near 4 KiB as
// near 1 MiB, and a pool that stays near 10 MiB.
constexpr unsigned LARGE_POOL_DOUBLINGS = 8;
constexpr uint64_t LARGE_POOL_MIN_BYTES = 4096;

constexpr unsigned CALLOC_MIX_BLOCKS = 64;
// The band of large calloc requests that some heaps serve from memory known to be zero.
constexpr uint64_t CALLOC_BAND_MIN_BYTES = 716800;
constexpr uint64_t CALLOC_BAND_MAX_BYTES = 1048576;

void* large_pool_block(fixed_random& draws) {
    uint64_t low = LARGE_POOL_MIN_BYTES << draw_below(draws, LARGE_POOL_DOUBLINGS);
    uint64_t bytes = low + draw_below(draws, low);
    void* block = checked(std::malloc(bytes), "malloc", bytes);
    touch_ends(block, bytes);
    return block;
}

// Half small (8 to 256 bytes), three in ten medium (1 to 32 KiB), one in five from the band.
uint64_t calloc_mix_size(fixed_random& draws) {
    uint64_t kind = draw_below(draws, 10);
    if (kind < 5) return 8 * (1 + draw_below(draws, 32));
    if (kind < 8) return 1024 + draw_below(draws, 31 * 1024);
    return CALLOC_BAND_MIN_BYTES +
           draw_below(draws, CALLOC_BAND_MAX_BYTES - CALLOC_BAND_MIN_BYTES + 1);
}

// Checks three bytes of a fresh calloc block and dirties them, so that a heap which hands the
// block out again without zeroing it is caught.
void* calloc_mix_block(fixed_random& draws) {
    uint64_t bytes = calloc_mix_size(draws);
    auto* block =
        static_cast<volatile unsigned char*>(checked(std::calloc(1, bytes), "calloc", bytes));
    if (block[0] != 0 || block[bytes / 2] != 0 || block[bytes - 1] != 0)
        workload_failure("calloc returned a block that is not zero", bytes);
    for (uint64_t at : {uint64_t{0}, bytes / 2, bytes - 1}) block[at] = 0xa5;
    return const_cast<unsigned char*>(block);
}

block_pool<LARGE_POOL_BLOCKS> large_pool{{}, {0xd1b54a32d192ed03ULL}, large_pool_block};
block_pool<CALLOC_MIX_BLOCKS> calloc_mix{{}, {0x8cb92ba72f3d8dd7ULL}, calloc_mix_block};

}  // namespace

// One step builds a string by doubling: a malloc of 16 bytes, 16 reallocs up to 1 MiB (each
// writing the new last byte), and the free.
void realloc_growth(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        void* block = checked(std::malloc(GROWTH_START_BYTES), "malloc", GROWTH_START_BYTES);
        touch_first(block);
        for (uint64_t bytes = 2 * GROWTH_START_BYTES; bytes <= GROWTH_END_BYTES; bytes *= 2) {
            block = checked(std::realloc(block, bytes), "realloc", bytes);
            touch_ends(block, bytes);
        }
        std::free(block);
    }
}

template <uint64_t BYTES>
void large_pairs(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        void* block = checked(std::malloc(BYTES), "malloc", BYTES);
        touch_ends(block, BYTES);
        std::free(block);
    }
}
template void large_pairs<4096>(uint64_t);
template void large_pairs<32768>(uint64_t);
template void large_pairs<262144>(uint64_t);
template void large_pairs<1048576>(uint64_t);

void large_pool_set_up() {
    large_pool.fill();
}
void large_pool_steps(uint64_t steps) {
    large_pool.replace(steps);
}
void large_pool_tear_down() {
    large_pool.empty();
}

void calloc_mix_set_up() {
    calloc_mix.fill();
}
void calloc_mix_steps(uint64_t steps) {
    calloc_mix.replace(steps);
}
void calloc_mix_tear_down() {
    calloc_mix.empty();
}

}  // namespace workload
