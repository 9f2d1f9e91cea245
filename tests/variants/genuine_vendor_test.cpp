// The processor check through a real CPUID instruction, in a library built without a simulated
// vendor: under qemu-user with the vendor "KestrelCores" the heap runs; on any other processor
// it leaves every request to the C library.
#include <cpuid.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/figures.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

// The vendor's twelve characters lie in ebx, edx and ecx, in that order.
std::string processor_vendor() {
    unsigned registers[4];
    __cpuid(0, registers[0], registers[1], registers[3], registers[2]);
    return std::string(reinterpret_cast<const char*>(registers + 1), 12);
}

TEST(kestrel_processor, runs_the_heap) {
    ASSERT_EQ(processor_vendor(), "KestrelCores");
    void* block = tarnheap_malloc(100);
    EXPECT_EQ(heap_state.init_state, READY);
    EXPECT_EQ(place(block).where, area::small);
    tarnheap_free(block);
}

TEST(other_processor, leaves_everything_to_the_c_library) {
    ASSERT_NE(processor_vendor(), "KestrelCores");
    void* block = tarnheap_malloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(heap_state.init_state, FAILED);
    EXPECT_EQ(heap_state.bucket_area_base, 0u);
    static void* released;
    auto c_library_free = heap_state.fallback_free;
    heap_state.fallback_free = [](void* freed) { released = freed; };
    tarnheap_free(block);
    EXPECT_EQ(released, block);
    c_library_free(block);
    void* resized = tarnheap_realloc(tarnheap_calloc(8, 8), 5000);
    EXPECT_NE(resized, nullptr);
    tarnheap_free(resized);
}

}  // namespace
}  // namespace tarnheap::testing
