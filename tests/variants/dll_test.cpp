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

template <typename entry>
entry* lookup(const char* module, const char* name) {
    FARPROC found = GetProcAddress(LoadLibraryA(module), name);
    EXPECT_NE(found, nullptr) << module << " " << name;
    return reinterpret_cast<entry*>(reinterpret_cast<void*>(found));
}

TEST(tarnheap_dll, serves_small_blocks_from_its_region) {
    auto* heap_malloc = lookup<void*(size_t)>("TARNHEAP.dll", "malloc");
    auto* heap_free = lookup<void(void*)>("TARNHEAP.dll", "free");
    ASSERT_EQ(
        lookup<int(int, int)>("TARNHEAP.dll", "mallopt")(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE),
        TARNHEAP_PROBE_ANSWER);
    for (size_t size : {1u, 9u, 100u, 256u}) {
        auto* block = static_cast<char*>(heap_malloc(size));
        // Test processes run without address-space randomisation, so the hint is free.
        EXPECT_LT(reinterpret_cast<uint64_t>(block) - REGION_HINT, 28 * SEGMENT_BYTES) << size;
        std::memset(block, 0x5A, size);
        heap_free(block);
        EXPECT_EQ(heap_malloc(size), block) << size;
    }
    auto* zeroed = static_cast<unsigned char*>(
        lookup<void*(size_t, size_t)>("TARNHEAP.dll", "calloc")(10, 10));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(zeroed[i], 0);
    errno = 0;
    EXPECT_EQ(heap_malloc(0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(tarnheap_dll, built_for_another_vendor_leaves_everything_to_the_c_runtime) {
    constexpr const char* OTHER = "TARNHEAP_OTHER_VENDOR.dll";
    ASSERT_NE(LoadLibraryA(OTHER), GetModuleHandleA("TARNHEAP.dll"));
    auto* heap_malloc = lookup<void*(size_t)>(OTHER, "malloc");
    void* block = heap_malloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_GE(reinterpret_cast<uint64_t>(block) - REGION_HINT, REGION_BYTES);
    // Its blocks are the C runtime's: the runtime's own free takes them back.
    lookup<void(void*)>("msvcrt.dll", "free")(block);
    lookup<void(void*)>(OTHER, "free")(heap_malloc(3000));
    EXPECT_EQ(lookup<int(int, int)>(OTHER, "mallopt")(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE),
              TARNHEAP_PROBE_ANSWER);
}

}  // namespace
