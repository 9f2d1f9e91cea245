// The platform's virtual memory operations as the heap relies on them. On Windows this runs
// against the real thing; on Linux against the emulation, which must behave the same.
#include <cstdint>
#include <cstring>

#include "platform/platform.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

constexpr uint64_t SPOT = 0x7e0000000000, SIZE = 0x400000;
constexpr uint32_t ERROR_INVALID_ADDRESS = 487;

const auto at = [](uint64_t address) { return reinterpret_cast<void*>(address); };
void* reserve(uint64_t address, uint64_t size) {
    return platform_virtual_alloc(at(address), size, MEMORY_RESERVE, PAGE_READ_WRITE);
}
void* commit(uint64_t address, uint64_t size) {
    return platform_virtual_alloc(at(address), size, MEMORY_COMMIT, PAGE_READ_WRITE);
}
bool release(uint64_t address) {
    return platform_virtual_free(at(address), 0, MEMORY_RELEASE);
}

// Exactly where asked or not at all; anywhere, on a 64 KiB boundary; given up whole, at its
// base only and with no size. Commits succeed inside a reservation only, and read zero.
TEST(platform_memory, reserves_commits_and_releases_as_the_heap_relies_on) {
    ASSERT_EQ(reserve(SPOT, SIZE), at(SPOT));
    EXPECT_EQ(reserve(SPOT + SIZE / 2, SIZE), nullptr);
    EXPECT_FALSE(release(SPOT + 0x10000));
    EXPECT_EQ(platform_last_error(), ERROR_INVALID_ADDRESS);
    EXPECT_FALSE(platform_virtual_free(at(SPOT), 0x10000, MEMORY_RELEASE));
    ASSERT_EQ(commit(SPOT + 0x10000, 0x20000), at(SPOT + 0x10000));
    auto* bytes = static_cast<unsigned char*>(at(SPOT + 0x10000));
    for (uint64_t i = 0; i < 0x20000; i += 0x1000) ASSERT_EQ(bytes[i], 0);
    std::memset(bytes, 0x5A, 0x20000);
    EXPECT_EQ(commit(SPOT + SIZE - 0x1000, 0x2000), nullptr);  // runs past the end
    EXPECT_EQ(commit(SPOT + SIZE, 0x1000), nullptr);
    EXPECT_EQ(platform_last_error(), ERROR_INVALID_ADDRESS);
    EXPECT_TRUE(release(SPOT));
    EXPECT_FALSE(release(SPOT));
    EXPECT_EQ(commit(SPOT + 0x10000, 0x1000), nullptr);
    auto anywhere = reinterpret_cast<uint64_t>(reserve(0, SIZE + 0x1000));
    ASSERT_NE(anywhere, 0u);
    EXPECT_EQ(anywhere % 0x10000, 0u);
    EXPECT_TRUE(release(anywhere));
}

}  // namespace
}  // namespace tarnheap::testing
