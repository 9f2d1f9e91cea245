// The 1-bit finder, the release of runs and its bookkeeping, and the aliasing of the table's
// slots.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "runs/run_finder_table.h"
#include "support/reference_run_search.h"

namespace tarnheap::testing {
namespace {

constexpr uint64_t LIMIT = 4096;

struct search_fixture : ::testing::Test {
    // Room for the longest run released below.
    std::vector<uint8_t> bitmap = std::vector<uint8_t>(6000, 0);
    run_search_state state{};

    void fill(uint64_t first, uint64_t count, uint8_t byte) {
        std::memset(bitmap.data() + first / 8, byte, count / 8);
    }
};

using one_bit_finder_test = search_fixture;

TEST_F(one_bit_finder_test, takes_the_lowest_clear_bit_of_the_cursor_byte) {
    fill(0, 1024, 0xff);
    bitmap[100] = 0xf0;  // bits 800 .. 803 clear
    state.cursor = 802;
    state.high_water = 2000;
    EXPECT_EQ(one_bit_finder(bitmap.data(), LIMIT, &state), 800);
    EXPECT_EQ(bitmap[100], 0xf1);
    EXPECT_EQ(state.cursor, 800u);
    EXPECT_EQ(state.high_water, 2000u);
    EXPECT_EQ(run_count(state, 1), 1u);
    EXPECT_EQ(one_bit_finder(bitmap.data(), LIMIT, &state), 801);
    EXPECT_EQ(state.cursor, 801u);
}

TEST_F(one_bit_finder_test, raises_the_mark_and_refuses_the_limit) {
    fill(0, 1024, 0xff);
    EXPECT_EQ(one_bit_finder(bitmap.data(), 1025, &state), 1024);
    EXPECT_EQ(state.high_water, 1025u);
    std::vector<uint8_t> before = bitmap;
    run_search_state state_before = state;
    EXPECT_EQ(one_bit_finder(bitmap.data(), 1025, &state), -1);
    EXPECT_TRUE(bitmap == before);
    EXPECT_EQ(std::memcmp(&state, &state_before, sizeof state), 0);
}

struct release_case {
    const char* name;
    uint64_t first, length;
    uint32_t cursor, high_water;
    uint32_t cursor_after, high_water_after, peak_after;
    unsigned length_class;  // 0: none
};

class release_run_test : public search_fixture,
                         public ::testing::WithParamInterface<release_case> {};

// Bits 0 .. 999 and the released run are busy; the run's class counts 5 live runs.
TEST_P(release_run_test, clears_uncounts_and_lowers) {
    const release_case& r = GetParam();
    fill(0, 1000, 0xff);
    for (uint64_t bit = r.first; bit < r.first + r.length; ++bit)
        bitmap[bit / 8] |= uint8_t(1u << (bit % 8));
    state.cursor = r.cursor;
    state.high_water = r.high_water;
    state.peak_high_water = 100;
    if (r.length_class) run_count(state, r.length_class) = 5;
    run_search_state expected = state;
    if (r.length_class) run_count(expected, r.length_class) = 4;
    expected.cursor = r.cursor_after;
    expected.high_water = r.high_water_after;
    expected.peak_high_water = r.peak_after;

    release_run(bitmap.data(), &state, r.first, r.length);
    for (uint64_t bit = r.first; bit < r.first + r.length; ++bit)
        EXPECT_FALSE(reference_bit(bitmap.data(), bit)) << bit;
    for (unsigned byte = 0; byte < 125; ++byte) EXPECT_EQ(bitmap[byte], 0xff) << byte;
    EXPECT_EQ(std::memcmp(&state, &expected, sizeof state), 0)
        << state.cursor << " " << state.high_water << " " << state.peak_high_water;
}

INSTANTIATE_TEST_SUITE_P(
    cases, release_run_test,
    ::testing::Values(
        // The mark drops to the byte after the last busy one: 1000.
        release_case{"bit_run_at_the_top", 1200, 63, 10, 1263, 10, 1000, 1263, 63},
        release_case{"lowers_the_cursor", 1001, 7, 1100, 1008, 1001, 1008, 100, 7},
        release_case{"drop_under_a_word_keeps_the_mark", 1010, 40, 10, 1050, 10, 1050, 100, 40},
        release_case{"cursor_0_keeps_the_mark", 1200, 30, 0, 1230, 0, 1230, 100, 30},
        release_case{"byte_run", 1600, 100, 10, 1700, 10, 1000, 1700, 76},
        release_case{"word_run", 1536, 1024, 10, 2560, 10, 1000, 2560, 142},
        release_case{"block_run", 1024, 4608, 4000, 5632, 1024, 1000, 5632, 198},
        release_case{"uncounted_run", 1024, 40000, 10, 41024, 10, 1000, 41024, 0}),
    [](const ::testing::TestParamInfo<release_case>& info) {
        return std::string(info.param.name);
    });

TEST(run_finder_table, aliased_slots_claim_the_same_run) {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    for (unsigned slot = 0; slot < GENERIC_SLOT; ++slot) EXPECT_NE(table[slot].fixed, nullptr);
    EXPECT_EQ(table[GENERIC_SLOT].generic, generic_block_finder);

    std::vector<uint8_t> busy(LIMIT / 8 + 512, 0);
    std::memset(busy.data(), 0x5b, 100);
    for (unsigned slot : {0, 1, 64, 128, 192}) {
        std::vector<uint8_t> bitmap = busy;
        run_search_state state{};
        EXPECT_EQ(table[slot].fixed(bitmap.data(), LIMIT, &state), 2) << slot;
        EXPECT_EQ(run_count(state, 1), 1u);
        EXPECT_EQ(bitmap[0], 0x5f);
    }
    // Slot 64t + j, j < 8, is the member for 8j * 8^(t-1) bits of the tier below.
    for (unsigned tier = 1; tier < 4; ++tier)
        for (unsigned j = 1; j < 8; ++j)
            EXPECT_EQ(table[64 * tier + j].fixed, table[64 * (tier - 1) + 8 * j].fixed)
                << tier << " " << j;
    std::vector<uint8_t> for_72 = busy, for_129 = busy;
    run_search_state state_72{}, state_129{};
    EXPECT_EQ(table[72].fixed(for_72.data(), LIMIT, &state_72), 800);
    EXPECT_EQ(table[129].fixed(for_129.data(), LIMIT, &state_129), 800);
    EXPECT_EQ(run_count(state_129, 71), 1u);
}

}  // namespace
}  // namespace tarnheap::testing
