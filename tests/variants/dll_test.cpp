// TARNHEAP.dll as a program loads it: a heap served from the 8 GiB region, and a twin built for
// another processor vendor that leaves everything to the C runtime. (Its export and import
// tables are checked with objdump.)
#include <gtest/gtest.h>
#include <windows.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "tarnheap.h"

namespace {

constexpr uint64_t REGION_HINT = 0x7f0000000000;
constexpr uint64_t REGION_BYTES = 0x200000000;
constexpr uint64_t SEGMENT_BYTES = 0x8000000;

struct heap_entries {
    HMODULE module;
    void* (*malloc)(size_t);
    void* (*calloc)(size_t, size_t);
    void (*free)(void*);
    int (*mallopt)(int, int);
};

template <typename entry>
entry lookup(HMODULE module, const char* name) {
    return reinterpret_cast<entry>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

heap_entries load(const char* path) {
    HMODULE module = LoadLibraryA(path);
    return {module, lookup<void* (*)(size_t)>(module, "malloc"),
            lookup<void* (*)(size_t, size_t)>(module, "calloc"),
            lookup<void (*)(void*)>(module, "free"), lookup<int (*)(int, int)>(module, "mallopt")};
}

TEST(tarnheap_dll, serves_small_blocks_from_its_region) {
    heap_entries heap = load("TARNHEAP.dll");
    ASSERT_NE(heap.module, nullptr);
    EXPECT_EQ(heap.mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE), TARNHEAP_PROBE_ANSWER);
    for (size_t size : {1u, 8u, 9u, 33u, 100u, 256u}) {
        auto* block = static_cast<char*>(heap.malloc(size));
        uint64_t address = reinterpret_cast<uint64_t>(block);
        // Test processes run without address-space randomisation, so the hint is free.
        EXPECT_EQ(address & ~(REGION_BYTES - 1), REGION_HINT) << size;
        EXPECT_LT(address - REGION_HINT, 28 * SEGMENT_BYTES) << size;
        std::memset(block, 0x5A, size);
        heap.free(block);
        EXPECT_EQ(heap.malloc(size), block) << size;
    }
    auto* zeroed = static_cast<unsigned char*>(heap.calloc(10, 10));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(zeroed[i], 0);
    errno = 0;
    EXPECT_EQ(heap.malloc(0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(tarnheap_dll, built_for_another_vendor_leaves_everything_to_the_c_runtime) {
    heap_entries heap = load("TARNHEAP_OTHER_VENDOR.dll");
    ASSERT_NE(heap.module, nullptr);
    ASSERT_NE(heap.module, GetModuleHandleA("TARNHEAP.dll"));
    void* block = heap.malloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_NE(reinterpret_cast<uint64_t>(block) & ~(REGION_BYTES - 1), REGION_HINT);
    // Its blocks are the C runtime's: the runtime's own free takes them back.
    auto c_runtime_free = lookup<void (*)(void*)>(GetModuleHandleA("msvcrt.dll"), "free");
    c_runtime_free(block);
    block = heap.malloc(3000);
    heap.free(block);
    EXPECT_EQ(heap.mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE), TARNHEAP_PROBE_ANSWER);
}

}  // namespace
