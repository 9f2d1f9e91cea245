// realloc: blocks kept in place or moved with their bytes, and every failure leaving the old
// block with its owner.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

void fill(void* block, size_t size, unsigned seed) {
    auto* bytes = static_cast<unsigned char*>(block);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(seed + i * 7);
}

::testing::AssertionResult holds(const void* block, size_t size, unsigned seed) {
    auto* bytes = static_cast<const unsigned char*>(block);
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != static_cast<unsigned char>(seed + i * 7))
            return ::testing::AssertionFailure() << "byte " << i << " of " << size;
    return ::testing::AssertionSuccess();
}

class resize : public fresh_heap {
  protected:
    void SetUp() override {
        fresh_heap::SetUp();
        start_heap();
    }
};

TEST_F(resize, a_null_block_is_allocated_and_nothing_is_refused) {
    void* block = tarnheap_realloc(nullptr, 100);
    ASSERT_NE(block, nullptr);
    tarnheap_free(block);
    EXPECT_EQ(tarnheap_malloc(100), block);
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(nullptr, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(resize, to_nothing_releases_the_block_and_reports_enomem) {
    void* block = tarnheap_malloc(40);
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(block, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(tarnheap_malloc(40), block);
}

TEST_F(resize, a_small_block_stays_while_the_size_fits_its_class) {
    void* block = tarnheap_malloc(100);  // 112-byte class
    for (size_t size : {1u, 50u, 100u, 112u})
        EXPECT_EQ(tarnheap_realloc(block, size), block) << size;
}

TEST_F(resize, a_small_block_moves_with_all_of_its_bytes_and_is_reused_first) {
    for (size_t old_size : {4u, 8u, 24u, 60u, 64u, 100u, 128u, 176u, 192u, 200u, 256u}) {
        void* block = tarnheap_malloc(old_size);
        fill(block, old_size, static_cast<unsigned>(old_size));
        uint64_t whole =
            4 *
            uint64_t{
                heap_state
                    .small_class_head[(reinterpret_cast<uint64_t>(block) & REGION_OFFSET_MASK) >>
                                      SEGMENT_SHIFT]
                    .units};
        fill(block, whole, static_cast<unsigned>(old_size));
        void* moved = tarnheap_realloc(block, whole + 1);
        ASSERT_NE(moved, block) << old_size;
        EXPECT_TRUE(holds(moved, whole, static_cast<unsigned>(old_size))) << old_size;
        EXPECT_EQ(tarnheap_malloc(old_size), block) << old_size;
    }
}

TEST_F(resize, a_move_into_a_full_stack_flushes_it_first) {
    std::vector<void*> blocks;
    for (unsigned i = 0; i < 3 * REFILL_BATCH; ++i) blocks.push_back(tarnheap_malloc(8));
    for (unsigned i = 1; i <= FREE_INDEX_STACK_CAPACITY; ++i) tarnheap_free(blocks[i]);
    ASSERT_EQ(heap_state.small_class_head[1].depth, static_cast<int>(FREE_INDEX_STACK_CAPACITY));
    void* moved = tarnheap_realloc(blocks[0], 16);
    EXPECT_NE(moved, nullptr);
    EXPECT_EQ(heap_state.small_class_head[1].depth, 1);
    EXPECT_EQ(tarnheap_malloc(8), blocks[0]);
}

TEST_F(resize, a_failed_move_leaves_the_block_intact) {
    void* block = tarnheap_malloc(64);
    fill(block, 64, 3);
    heap_state.fallback_malloc = nullptr;
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(block, LARGE_MAX + 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(holds(block, 64, 3));
    EXPECT_EQ(tarnheap_realloc(block, 64), block);
}

TEST_F(resize, a_bootstrap_block_stays_while_it_fits_and_moves_otherwise) {
    reset_heap();
    heap_state.init_state = INIT_RUNNING;  // white-box: a request made during initialisation
    void* block = tarnheap_malloc(100);    // a 128-byte piece: 112 usable bytes
    heap_state.init_state = INIT_NONE;
    void* grown = tarnheap_realloc(block, 112);
    EXPECT_EQ(grown, block);
    fill(grown, 112, 9);
    EXPECT_EQ(tarnheap_realloc(grown, 10), block);
    void* moved = tarnheap_realloc(block, 113);
    EXPECT_NE(moved, block);
    EXPECT_TRUE(holds(moved, 112, 9));
    EXPECT_EQ(heap_state.bootstrap_used, 128u);
}

TEST_F(resize, foreign_blocks_go_to_the_c_runtime) {
    void* foreign = heap_state.fallback_malloc(50);
    fill(foreign, 50, 5);
    void* grown = tarnheap_realloc(foreign, 5000);
    ASSERT_NE(grown, nullptr);
    EXPECT_TRUE(holds(grown, 50, 5));
    heap_state.fallback_realloc = nullptr;
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(grown, 6000), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    heap_state.fallback_free(grown);
}

}  // namespace
}  // namespace tarnheap::testing
