// The platform's virtual memory operations as the heap relies on them, and the aligned
// reservation built on them: its attempts driven through a scripted operations record, its
// trimming against the real platform. On Windows this runs against the real thing; on Linux
// against the emulation, which must behave the same.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/os_memory_ops.h"
#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

constexpr uint64_t SPOT = 0x7e0000000000, SIZE = 0x400000;
constexpr uint32_t ERROR_INVALID_ADDRESS = 487;

const auto at = [](uint64_t address) { return reinterpret_cast<void*>(address); };
void* allocate(uint64_t address, uint64_t size, uint32_t type) {
    return platform_virtual_alloc(at(address), size, type, PAGE_READ_WRITE);
}
bool release(uint64_t address) {
    return platform_virtual_free(at(address), 0, MEMORY_RELEASE);
}

// Exactly where asked or not at all, or anywhere on a 64 KiB boundary; given up whole, at its
// base only and with no size. Commits succeed inside a reservation only, and read zero.
TEST(platform_memory, reserves_commits_and_releases_as_the_heap_relies_on) {
    ASSERT_EQ(allocate(SPOT, SIZE, MEMORY_RESERVE), at(SPOT));
    EXPECT_EQ(allocate(SPOT + SIZE / 2, SIZE, MEMORY_RESERVE), nullptr);
    EXPECT_FALSE(release(SPOT + 0x10000));
    EXPECT_EQ(platform_last_error(), ERROR_INVALID_ADDRESS);
    EXPECT_FALSE(platform_virtual_free(at(SPOT), 0x10000, MEMORY_RELEASE));
    ASSERT_EQ(allocate(SPOT + 0x10000, 0x20000, MEMORY_COMMIT), at(SPOT + 0x10000));
    auto* bytes = static_cast<unsigned char*>(at(SPOT + 0x10000));
    for (uint64_t i = 0; i < 0x20000; i += 0x1000) ASSERT_EQ(bytes[i], 0);
    std::memset(bytes, 0x5A, 0x20000);
    // An address inside a page commits that page.
    EXPECT_EQ(allocate(SPOT + 0x31005, 0x10, MEMORY_COMMIT), at(SPOT + 0x31000));
    EXPECT_EQ(allocate(SPOT + SIZE - 0x1000, 0x2000, MEMORY_COMMIT), nullptr);  // runs past the end
    EXPECT_EQ(allocate(SPOT + SIZE, 0x1000, MEMORY_COMMIT), nullptr);
    EXPECT_EQ(platform_last_error(), ERROR_INVALID_ADDRESS);
    EXPECT_TRUE(release(SPOT));
    EXPECT_FALSE(release(SPOT));
    EXPECT_EQ(allocate(SPOT + 0x10000, 0x1000, MEMORY_COMMIT), nullptr);
    auto anywhere = reinterpret_cast<uint64_t>(allocate(0, SIZE + 0x1000, MEMORY_RESERVE));
    EXPECT_TRUE(anywhere != 0 && anywhere % 0x10000 == 0) << anywhere;
    EXPECT_TRUE(anywhere == 0 || release(anywhere));
}

constexpr uint64_t A = 0x200000000;     // the alignment
constexpr uint64_t H = 0x7f0000000000;  // the hint
constexpr uint64_t G = 0x10000;         // a granule of reservations
constexpr uint64_t ANYWHERE = 0x12340000, HEAD = A - ANYWHERE % A;

// A reservation ('r') or release ('f') as the operations record saw it.
struct call {
    char operation;
    uint64_t address, size;
    bool operator==(const call&) const = default;
};

// Every call the attempts can make, in order: the hint, released when the answer is unaligned;
// the next aligned address, likewise; anywhere, over-sized, then its head and tail trimmed.
const call ATTEMPTS[] = {{'r', H, A},
                         {'f', H + G, A},
                         {'r', H + A, A},
                         {'f', H + 2 * G, A},
                         {'r', 0, 2 * A},
                         {'f', ANYWHERE, HEAD},
                         {'f', ANYWHERE + HEAD + A, ANYWHERE % A}};

// Each reservation is answered with the next scripted address (0: refused).
struct scripted {
    const char* name;
    std::vector<uint64_t> answers;
    uint64_t expected_base, expected_size;
    size_t calls_made;  // of the attempts above
};

const scripted SCRIPTS[] = {
    {"unaligned_then_next_aligned", {H + G, H + A}, H + A, A, 3},
    {"unaligned_twice_then_trimmed", {H + G, H + 2 * G, ANYWHERE}, ANYWHERE + HEAD, A, 7},
    {"aligned_oversized_kept_whole", {H + G, H + 2 * G, 3 * A}, 3 * A, 2 * A, 5},
    // A refusal ends the attempts (a refused first one is with the injected faults).
    {"refused_at_the_second_attempt", {H + G, 0}, 0, 1, 3},
};

std::vector<call> calls;
std::vector<uint64_t> answers;

class reserve_aligned_script : public ::testing::TestWithParam<scripted> {};

TEST_P(reserve_aligned_script, makes_its_attempts_in_order) {
    os_memory_ops_record ops = os_memory_ops;
    ops.reserve = [](void*, uint64_t size, uint64_t, uint64_t* address) {
        calls.push_back({'r', *address, size});
        uint64_t answer = answers.at(calls.size() / 2);  // releases and reservations alternate
        if (answer != 0) *address = answer;
        return uint32_t{answer == 0};
    };
    ops.release = [](void*, uint64_t address, uint64_t size) {
        calls.push_back({'f', address, size});
        return uint32_t{0};
    };
    heap_state.memory_ops = &ops;
    const scripted& s = GetParam();
    answers = s.answers, calls.clear();
    uint64_t size = 1;  // rounded up to the alignment
    EXPECT_EQ(reserve_aligned(H, &size, A), s.expected_base);
    EXPECT_EQ(size, s.expected_size);
    EXPECT_EQ(calls, std::vector<call>(ATTEMPTS, ATTEMPTS + s.calls_made));
    heap_state.memory_ops = nullptr;
}

INSTANTIATE_TEST_SUITE_P(attempts, reserve_aligned_script, ::testing::ValuesIn(SCRIPTS),
                         [](const auto& info) { return std::string(info.param.name); });

// With the platform's release, which gives up a whole reservation whatever size it is told,
// the trim releases the over-sized reservation at its first call and the second call fails:
// the address handed back is not reserved. This is kept as it is.
TEST_F(fresh_heap, trimming_leaves_the_returned_range_unreserved) {
    static unsigned attempts;
    attempts = 0;
    os_memory_ops_record ops = os_memory_ops;
    ops.context = &os_memory_params;
    // The first two answers land one granule above the wanted address, so the third attempt
    // (anywhere, on the real platform) has to trim.
    ops.reserve = [](void* context, uint64_t size, uint64_t alignment, uint64_t* address) {
        if (++attempts < 3) *address += G;
        return os_memory_ops.reserve(context, size, alignment, address);
    };
    heap_state.memory_ops = &ops;
    constexpr uint64_t GIB = uint64_t{1} << 30;
    uint64_t size = GIB, base = reserve_aligned(SPOT, &size, GIB);
    ASSERT_NE(base, 0u);
    EXPECT_EQ(base % GIB, 0u);
    EXPECT_EQ(attempts, 3u);
    if (size != GIB) GTEST_SKIP() << "the platform's own answer happened to be aligned";
    EXPECT_EQ(allocate(base, 0x1000, MEMORY_COMMIT), nullptr);
}

}  // namespace
}  // namespace tarnheap::testing
