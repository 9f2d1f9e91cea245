// mallopt: the routing of 1 to 64-byte requests, seen through the classes malloc then uses,
// and the probe.
#include <cerrno>
#include <cstdint>

#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

int class_of(const void* block) {
    return static_cast<int>((reinterpret_cast<uint64_t>(block) & REGION_OFFSET_MASK) >>
                            SEGMENT_SHIFT);
}

class routing : public fresh_heap {};

TEST_F(routing, fine_serves_every_size_at_its_own_multiple_of_four) {
    start_heap();
    ASSERT_EQ(tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE), 1);
    for (size_t size = 1; size <= 64; ++size)
        EXPECT_EQ(class_of(tarnheap_malloc(size)), static_cast<int>((size + 3) / 4 - 1)) << size;
    EXPECT_EQ(class_of(tarnheap_malloc(65)), 16);
}

TEST_F(routing, any_other_value_restores_the_coarse_default) {
    start_heap();
    tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    ASSERT_EQ(tarnheap_mallopt(TARNHEAP_M_ROUTING, 5), 1);
    const int expected[] = {0, 1, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15};
    for (size_t size = 1; size <= 64; ++size)
        EXPECT_EQ(class_of(tarnheap_malloc(size)), expected[(size - 1) / 4]) << size;
}

TEST_F(routing, calloc_ignores_it) {
    start_heap();
    tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    EXPECT_EQ(class_of(tarnheap_calloc(1, 1)), 3);
    EXPECT_EQ(class_of(tarnheap_calloc(3, 3)), 3);
    EXPECT_EQ(class_of(tarnheap_calloc(1, 20)), 7);
    EXPECT_EQ(class_of(tarnheap_calloc(5, 10)), 15);
}

struct call {
    int option, value, answer;
};

TEST(mallopt, answers_the_probe_and_nothing_else_without_touching_errno) {
    const call calls[] = {{TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE, TARNHEAP_PROBE_ANSWER},
                          {0xDEAD, 0xBEEF, 0xBAD},
                          {TARNHEAP_M_PROBE, 0, 0},
                          {1, TARNHEAP_PROBE_VALUE, 0},
                          {0, 0, 0},
                          {-1, -1, 0}};
    for (const call& c : calls) {
        errno = 1234;
        EXPECT_EQ(tarnheap_mallopt(c.option, c.value), c.answer) << c.option << " " << c.value;
        EXPECT_EQ(errno, 1234);
    }
    EXPECT_EQ(heap_state.init_state, INIT_NONE);
}

}  // namespace
}  // namespace tarnheap::testing
