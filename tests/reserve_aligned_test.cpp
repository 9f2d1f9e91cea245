// The aligned reservation, driven through a scripted operations record, and its trimming
// checked against the real platform.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/os_memory_ops.h"
#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

constexpr uint64_t ALIGN = 0x200000000;
constexpr uint64_t HINT = REGION_HINT;
constexpr uint64_t ANYWHERE = 0x12340000;
constexpr uint64_t HEAD = ALIGN - ANYWHERE % ALIGN;

// A reservation ('r') or release ('f') as the operations record saw it.
struct call {
    char operation;
    uint64_t address, size;
    bool operator==(const call&) const = default;
};

// Each reservation is answered with the next scripted address (0: refused).
struct scripted {
    const char* name;
    std::vector<uint64_t> answers;
    uint64_t expected_base, expected_size;
    std::vector<call> expected_calls;
};

std::vector<call> calls;
std::vector<uint64_t> answers;

uint32_t scripted_reserve(void*, uint64_t size, uint64_t, uint64_t* address) {
    calls.push_back({'r', *address, size});
    uint64_t answer = answers.at(calls.size() / 2);  // releases and reservations alternate
    if (answer == 0) return 1;
    *address = answer;
    return 0;
}

uint32_t scripted_release(void*, uint64_t address, uint64_t size) {
    calls.push_back({'f', address, size});
    return 0;
}

class reserve_aligned_script : public ::testing::TestWithParam<scripted> {};

TEST_P(reserve_aligned_script, makes_its_attempts_in_order) {
    const scripted& script = GetParam();
    os_memory_ops_record ops = os_memory_ops;
    ops.reserve = scripted_reserve;
    ops.release = scripted_release;
    heap_state.memory_ops = &ops;
    answers = script.answers;
    calls.clear();
    uint64_t size = 1;  // rounded up to the alignment
    EXPECT_EQ(reserve_aligned(HINT, &size, ALIGN), script.expected_base);
    EXPECT_EQ(size, script.expected_size);
    EXPECT_EQ(calls, script.expected_calls);
    heap_state.memory_ops = nullptr;
}

INSTANTIATE_TEST_SUITE_P(
    attempts, reserve_aligned_script,
    ::testing::Values(
        // The hint is free: one reservation.
        scripted{"hint_free", {HINT}, HINT, ALIGN, {{'r', HINT, ALIGN}}},
        // An unaligned answer: the next aligned address above it.
        scripted{"unaligned_then_next_aligned",
                 {HINT + 0x10000, HINT + ALIGN},
                 HINT + ALIGN,
                 ALIGN,
                 {{'r', HINT, ALIGN}, {'f', HINT + 0x10000, ALIGN}, {'r', HINT + ALIGN, ALIGN}}},
        // Unaligned twice: anywhere, over-sized, then the head and the tail trimmed.
        scripted{"unaligned_twice_then_trimmed",
                 {HINT + 0x10000, HINT + 0x20000, ANYWHERE},
                 ANYWHERE + HEAD,
                 ALIGN,
                 {{'r', HINT, ALIGN},
                  {'f', HINT + 0x10000, ALIGN},
                  {'r', HINT + ALIGN, ALIGN},
                  {'f', HINT + 0x20000, ALIGN},
                  {'r', 0, 2 * ALIGN},
                  {'f', ANYWHERE, HEAD},
                  {'f', ANYWHERE + HEAD + ALIGN, ANYWHERE % ALIGN}}},
        // An aligned over-sized answer is kept whole.
        scripted{"aligned_oversized_kept_whole",
                 {HINT + 0x10000, HINT + 0x20000, 3 * ALIGN},
                 3 * ALIGN,
                 2 * ALIGN,
                 {{'r', HINT, ALIGN},
                  {'f', HINT + 0x10000, ALIGN},
                  {'r', HINT + ALIGN, ALIGN},
                  {'f', HINT + 0x20000, ALIGN},
                  {'r', 0, 2 * ALIGN}}},
        // Any refusal ends the attempts.
        scripted{"refused_at_once", {0}, 0, 1, {{'r', HINT, ALIGN}}},
        scripted{"refused_at_the_second_attempt",
                 {HINT + 0x10000, 0},
                 0,
                 1,
                 {{'r', HINT, ALIGN}, {'f', HINT + 0x10000, ALIGN}, {'r', HINT + ALIGN, ALIGN}}}),
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
        if (++attempts < 3) *address += 0x10000;
        return os_memory_ops.reserve(context, size, alignment, address);
    };
    heap_state.memory_ops = &ops;
    constexpr uint64_t GIB = uint64_t{1} << 30;
    uint64_t size = GIB;
    uint64_t base = reserve_aligned(0x7e0000000000, &size, GIB);
    ASSERT_NE(base, 0u);
    EXPECT_EQ(base % GIB, 0u);
    EXPECT_EQ(attempts, 3u);
    if (size != GIB) GTEST_SKIP() << "the platform's own answer happened to be aligned";
    EXPECT_EQ(platform_virtual_alloc(reinterpret_cast<void*>(base), 0x1000, MEMORY_COMMIT,
                                     PAGE_READ_WRITE),
              nullptr);
}

}  // namespace
}  // namespace tarnheap::testing
