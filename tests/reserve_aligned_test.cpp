// The aligned reservation, driven through a scripted operations record, and its trimming
// checked against the real platform.
#include <cstdint>
#include <vector>

#include "platform/os_memory_ops.h"
#include "platform/platform.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

constexpr uint64_t ALIGNMENT = 0x200000000;

struct call {
    char operation;  // 'r'eserve or 'f'ree
    uint64_t address;
    uint64_t size;
};

// A platform that answers each reservation with the next scripted address (0: refuse) and
// records every call.
struct script {
    std::vector<uint64_t> answers;
    size_t answered = 0;
    std::vector<call> calls;
};
script* current;

uint32_t scripted_reserve(void*, uint64_t size, uint64_t, uint64_t* address) {
    current->calls.push_back({'r', *address, size});
    uint64_t answer = current->answers.at(current->answered++);
    if (answer == 0) return 1;
    *address = answer;
    return 0;
}

uint32_t scripted_release(void*, uint64_t address, uint64_t size) {
    current->calls.push_back({'f', address, size});
    return 0;
}

class reserve_aligned_script : public fresh_heap {
protected:
    void SetUp() override {
        fresh_heap::SetUp();
        ops = os_memory_ops;
        ops.reserve = scripted_reserve;
        ops.release = scripted_release;
        heap_state.memory_ops = &ops;
        current = &run;
    }
    uint64_t reserve(std::vector<uint64_t> answers, uint64_t* size) {
        run.answers = std::move(answers);
        run.answered = 0;
        return reserve_aligned(REGION_HINT, size, ALIGNMENT);
    }
    os_memory_ops_record ops;
    script run;
};

bool operator==(const call& a, const call& b) {
    return a.operation == b.operation && a.address == b.address && a.size == b.size;
}

TEST_F(reserve_aligned_script, takes_the_hint_when_it_is_free) {
    uint64_t size = ALIGNMENT;
    EXPECT_EQ(reserve({REGION_HINT}, &size), REGION_HINT);
    EXPECT_EQ(size, ALIGNMENT);
    EXPECT_EQ(run.calls, (std::vector<call>{{'r', REGION_HINT, ALIGNMENT}}));
}

TEST_F(reserve_aligned_script, rounds_the_size_up_to_the_alignment) {
    uint64_t size = 1;
    EXPECT_EQ(reserve({REGION_HINT}, &size), REGION_HINT);
    EXPECT_EQ(size, ALIGNMENT);
}

TEST_F(reserve_aligned_script, asks_for_the_next_aligned_address_above_an_unaligned_answer) {
    uint64_t size = ALIGNMENT, unaligned = REGION_HINT + 0x10000, next = REGION_HINT + ALIGNMENT;
    EXPECT_EQ(reserve({unaligned, next}, &size), next);
    EXPECT_EQ(size, ALIGNMENT);
    EXPECT_EQ(run.calls, (std::vector<call>{{'r', REGION_HINT, ALIGNMENT},
                                            {'f', unaligned, ALIGNMENT},
                                            {'r', next, ALIGNMENT}}));
}

TEST_F(reserve_aligned_script, over_reserves_anywhere_and_trims_on_the_third_attempt) {
    uint64_t size = ALIGNMENT, anywhere = 0x12340000;
    uint64_t head = ALIGNMENT - anywhere % ALIGNMENT;
    uint64_t expected = anywhere + head;
    EXPECT_EQ(reserve({REGION_HINT + 0x10000, REGION_HINT + 0x20000, anywhere}, &size), expected);
    EXPECT_EQ(size, ALIGNMENT);
    ASSERT_EQ(run.calls.size(), 7u);
    EXPECT_EQ(run.calls[4], (call{'r', 0, 2 * ALIGNMENT}));
    EXPECT_EQ(run.calls[5], (call{'f', anywhere, head}));
    EXPECT_EQ(run.calls[6], (call{'f', expected + ALIGNMENT, anywhere % ALIGNMENT}));
}

TEST_F(reserve_aligned_script, keeps_an_aligned_third_answer_whole) {
    uint64_t size = ALIGNMENT;
    uint64_t aligned = 3 * ALIGNMENT;
    EXPECT_EQ(reserve({REGION_HINT + 0x10000, REGION_HINT + 0x20000, aligned}, &size), aligned);
    EXPECT_EQ(size, 2 * ALIGNMENT);
}

TEST_F(reserve_aligned_script, gives_up_when_any_attempt_is_refused) {
    for (size_t refused : {0u, 1u, 2u}) {
        std::vector<uint64_t> answers = {REGION_HINT + 0x10000, REGION_HINT + 0x20000, 0x12340000};
        answers[refused] = 0;
        uint64_t size = ALIGNMENT;
        run.calls.clear();
        EXPECT_EQ(reserve(answers, &size), 0u) << refused;
        EXPECT_EQ(size, ALIGNMENT);
    }
}

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
    uint64_t size = uint64_t{1} << 30;
    uint64_t base = reserve_aligned(0x7e0000000000, &size, uint64_t{1} << 30);
    ASSERT_NE(base, 0u);
    EXPECT_EQ(base % (uint64_t{1} << 30), 0u);
    EXPECT_EQ(attempts, 3u);
    if (size != uint64_t{1} << 30) GTEST_SKIP() << "the platform's own answer happened to be aligned";
    EXPECT_EQ(platform_virtual_alloc(reinterpret_cast<void*>(base), 0x1000, MEMORY_COMMIT,
                                     PAGE_READ_WRITE),
              nullptr);
}

}  // namespace
}  // namespace tarnheap::testing
