// Small blocks end to end through the public entry points, checked against the state record.
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "small/small_class.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

// The class of a small block, from its address alone.
int class_of(const void* block) {
    uint64_t offset = reinterpret_cast<uint64_t>(block) & REGION_OFFSET_MASK;
    return offset < SMALL_AREA_BYTES ? static_cast<int>(offset >> SEGMENT_SHIFT) : -1;
}

class small_blocks : public fresh_heap {};

struct size_and_class {
    size_t size;
    int small_class;
};

TEST_F(small_blocks, each_size_lands_in_its_class) {
    const size_and_class cases[] = {{1, 0},   {4, 0},   {5, 1},   {8, 1},    {9, 3},    {16, 3},
                                    {17, 7},  {32, 7},  {33, 11}, {48, 11},  {49, 15},  {64, 15},
                                    {65, 16}, {80, 16}, {81, 17}, {112, 18}, {241, 27}, {256, 27}};
    for (const auto& c : cases) {
        void* block = tarnheap_malloc(c.size);
        EXPECT_EQ(class_of(block), c.small_class) << c.size << " bytes";
        std::memset(block, 0xEE, c.size);
    }
    EXPECT_EQ(heap_state.init_state, INIT_READY);
}

TEST_F(small_blocks, a_refill_hands_out_ascending_addresses_and_reuses_last_freed_first) {
    std::vector<char*> blocks;
    for (int i = 0; i < 3000; ++i) blocks.push_back(static_cast<char*>(tarnheap_malloc(100)));
    for (size_t i = 1; i < blocks.size(); ++i) ASSERT_EQ(blocks[i] - blocks[i - 1], 112) << i;
    const small_class_record& descriptor = heap_state.small_class[18];
    EXPECT_EQ(static_cast<uint64_t>(descriptor.capacity - descriptor.remaining), 3 * REFILL_BATCH);
    EXPECT_EQ(reinterpret_cast<uint64_t>(blocks[0]), descriptor.first_block);
    tarnheap_free(blocks[10]);
    tarnheap_free(blocks[20]);
    EXPECT_EQ(tarnheap_malloc(97), blocks[20]);
    EXPECT_EQ(tarnheap_malloc(112), blocks[10]);
}

TEST_F(small_blocks, the_first_refill_commits_the_whole_segment_once) {
    static int commits;
    commits = 0;
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type == MEMORY_COMMIT && size == SEGMENT_BYTES) ++commits;
        return platform_virtual_alloc(at, size, type, protect);
    };
    for (int i = 0; i < 5000; ++i) ASSERT_NE(tarnheap_malloc(8), nullptr);
    EXPECT_EQ(commits, 1);
    EXPECT_EQ(heap_state.small_class[1].uncommitted_base, 0u);
}

TEST_F(small_blocks, a_failed_commit_prints_both_messages_once_and_still_returns_a_block) {
    start_heap();
    // The commit reports failure but does happen, so that the blocks stay usable here.
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        void* got = platform_virtual_alloc(at, size, type, protect);
        return type == MEMORY_COMMIT ? nullptr : got;
    };
    platform_seams.last_error = [] { return uint32_t{1455}; };
    uint64_t segment = heap_state.small_class[7].uncommitted_base;
    ::testing::internal::CaptureStderr();
    void* block = tarnheap_malloc(30);
    std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(class_of(block), 7);
    char expected[512];
    std::snprintf(expected, sizeof expected,
                  "Error: VirtualAlloc(0x%p, 134217728, MEM_COMMIT, PAGE_READWRITE) failed with "
                  "the error: 1455\nError: VirtualAlloc(0x%p, 134217728, MEM_COMMIT, "
                  "PAGE_READWRITE) returned a different address: 0x%p\n",
                  reinterpret_cast<void*>(segment), reinterpret_cast<void*>(segment), nullptr);
    // %p is the C runtime's own: msvcrt renders hex digits in capitals.
    auto lower = [](std::string text) {
        for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    };
    EXPECT_EQ(lower(printed), lower(expected));
    // Later refills of the class never retry the commit.
    ::testing::internal::CaptureStderr();
    for (unsigned i = 0; i < 2 * REFILL_BATCH; ++i) ASSERT_NE(tarnheap_malloc(30), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(small_blocks, a_full_stack_is_flushed_by_the_release_that_finds_it_full) {
    // Three whole refills: more blocks than the stack holds, and an empty stack.
    std::vector<void*> blocks;
    for (unsigned i = 0; i < 3 * REFILL_BATCH; ++i) blocks.push_back(tarnheap_malloc(16));
    const small_class_head_record& head = heap_state.small_class_head[3];
    const small_class_record& descriptor = heap_state.small_class[3];
    ASSERT_EQ(head.depth, 0);
    int32_t remaining = descriptor.remaining;
    for (unsigned i = 0; i < FREE_INDEX_STACK_CAPACITY; ++i) tarnheap_free(blocks[i + 5]);
    EXPECT_EQ(head.depth, static_cast<int>(FREE_INDEX_STACK_CAPACITY));
    EXPECT_EQ(descriptor.remaining, remaining);
    uint32_t cursor = descriptor.cursor;
    tarnheap_free(blocks[0]);
    EXPECT_EQ(head.depth, 1);
    EXPECT_EQ(descriptor.remaining, remaining + static_cast<int32_t>(FREE_INDEX_STACK_CAPACITY));
    EXPECT_EQ(descriptor.cursor, 0u);
    EXPECT_LT(descriptor.cursor, cursor);
    EXPECT_EQ(tarnheap_malloc(16), blocks[0]);
    // The flushed blocks come back from the bitmap, lowest first.
    EXPECT_EQ(tarnheap_malloc(16), blocks[5]);
}

TEST_F(small_blocks, calloc_zeroes_and_picks_its_own_classes) {
    tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    const size_and_class cases[] = {{1, 3},   {16, 3},  {17, 7},  {33, 11},
                                    {64, 15}, {65, 16}, {256, 27}};
    for (const auto& c : cases) {
        // Dirty a block of the class first, so that zeroing is observable on reuse.
        void* dirty = tarnheap_malloc(c.size < 5 ? 16 : c.size);
        std::memset(dirty, 0xFF, c.size);
        tarnheap_free(dirty);
        auto* block = static_cast<unsigned char*>(tarnheap_calloc(1, c.size));
        EXPECT_EQ(class_of(block), c.small_class) << c.size;
        for (size_t i = 0; i < c.size; ++i) ASSERT_EQ(block[i], 0) << c.size << " at " << i;
    }
}

TEST_F(small_blocks, a_wrapped_calloc_product_is_served_for_its_wrapped_size) {
    start_heap();
    // Hidden from the compiler, which would reject the product that wraps on purpose.
    volatile uint64_t half_range = uint64_t{1} << 63;
    void* wrapped = tarnheap_calloc(half_range, 2);
    EXPECT_EQ(class_of(wrapped), 0);
    void* three_hundred = tarnheap_calloc(3, 100);  // 304 bytes: not small
    EXPECT_EQ(class_of(three_hundred), -1);
}

TEST_F(small_blocks, requests_for_nothing_fail_with_enomem) {
    for (int round = 0; round < 2; ++round) {  // before and after initialisation
        errno = 0;
        EXPECT_EQ(tarnheap_malloc(0), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        errno = 0;
        EXPECT_EQ(tarnheap_calloc(0, 8), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        errno = 0;
        EXPECT_EQ(tarnheap_calloc(8, 0), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        tarnheap_free(nullptr);
        tarnheap_free(tarnheap_malloc(1));
    }
}

TEST_F(small_blocks, an_exhausted_class_overflows_to_the_next_step) {
    start_heap();
    small_class_record& descriptor = heap_state.small_class[0];
    descriptor.remaining = 3;  // white-box: a class with three blocks left
    void* blocks[3];
    for (void*& block : blocks) block = tarnheap_malloc(4);
    for (void* block : blocks) EXPECT_EQ(class_of(block), 0);
    EXPECT_EQ(descriptor.remaining, 0);
    void* overflow = tarnheap_malloc(4);
    EXPECT_NE(overflow, nullptr);
    EXPECT_NE(class_of(overflow), 0);
}

TEST_F(small_blocks, requests_during_initialisation_are_carved_from_the_bootstrap_arena) {
    heap_state.init_state = INIT_RUNNING;  // white-box: as if re-entered from initialisation
    auto* block = static_cast<uint8_t*>(tarnheap_malloc(100));
    EXPECT_EQ(block, heap_state.bootstrap_arena + 16);
    uint64_t header;
    std::memcpy(&header, heap_state.bootstrap_arena, sizeof header);
    EXPECT_EQ(header, 128u);
    auto* zeroed = static_cast<uint8_t*>(tarnheap_calloc(2, 10));
    EXPECT_EQ(zeroed, heap_state.bootstrap_arena + 128 + 16);
    tarnheap_free(block);  // ignored: pieces are never reused
    EXPECT_EQ(heap_state.bootstrap_used, 128u + 48u);
    heap_state.bootstrap_used = BOOTSTRAP_BYTES - 64;
    heap_state.fallback_malloc = nullptr;
    errno = 0;
    EXPECT_EQ(tarnheap_malloc(100), nullptr);  // the arena is full and there is no fallback
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(small_blocks, foreign_pointers_go_back_to_the_fallback) {
    start_heap();
    static void* released;
    released = nullptr;
    heap_state.fallback_free = [](void* block) { released = block; };
    // An address whose low 33 bits fall in class 18's segment but whose high bits differ.
    uint64_t lookalike = (region_base() ^ (uint64_t{1} << 40)) + 18 * SEGMENT_BYTES + 4096;
    tarnheap_free(reinterpret_cast<void*>(lookalike));
    EXPECT_EQ(released, reinterpret_cast<void*>(lookalike));
    EXPECT_EQ(heap_state.small_class_head[18].depth, 0);
}

}  // namespace
}  // namespace tarnheap::testing
