// The processor check through a real CPUID instruction, in a library built without a simulated
// vendor: under qemu-user with the vendor "KestrelCores" the heap runs; on any other processor
// it leaves every request to the C library.
#include <cpuid.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "support/figures.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

std::string processor_vendor() {
    unsigned eax, ebx, ecx, edx;
    __cpuid(0, eax, ebx, ecx, edx);
    char vendor[13] = {};
    std::memcpy(vendor, &ebx, 4);
    std::memcpy(vendor + 4, &edx, 4);
    std::memcpy(vendor + 8, &ecx, 4);
    return vendor;
}

TEST(kestrel_processor, runs_the_heap) {
    ASSERT_EQ(processor_vendor(), "KestrelCores");
    void* block = tarnheap_malloc(100);
    EXPECT_EQ(heap_state.init_state, READY);
    EXPECT_EQ(place(block).where, area::small);
    EXPECT_EQ(place(block).small_class, 18u);
    tarnheap_free(block);
    EXPECT_EQ(tarnheap_malloc(100), block);
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
    void* zeroed = tarnheap_calloc(8, 8);
    ASSERT_NE(zeroed, nullptr);
    EXPECT_EQ(static_cast<unsigned char*>(zeroed)[63], 0);
    zeroed = tarnheap_realloc(zeroed, 5000);
    EXPECT_NE(zeroed, nullptr);
    tarnheap_free(zeroed);
}

}  // namespace
}  // namespace tarnheap::testing
