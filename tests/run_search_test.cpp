// The release of runs and its bookkeeping.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "runs/run_finder_table.h"
#include "support/case_printer.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

struct release_case {
    const char* name;
    uint64_t first, length;
    uint32_t cursor, high_water;
    uint32_t cursor_after, high_water_after, peak_after;
    unsigned length_class;  // 0: none
};

class release_run_test : public ::testing::TestWithParam<release_case> {};

// Bits 0 .. 999 and the released run are busy; the run's class counts 5 live runs and the peak
// mark is 100.
TEST_P(release_run_test, clears_uncounts_and_lowers) {
    const release_case& r = GetParam();
    std::vector<uint8_t> bitmap(6000, 0);
    std::memset(bitmap.data(), 0xff, 125);
    std::vector<uint8_t> expected_bitmap = bitmap;
    for (uint64_t bit = r.first; bit < r.first + r.length; ++bit)
        bitmap[bit / 8] |= uint8_t(1u << (bit % 8));
    run_search_state state{r.cursor, r.high_water, 100, {}};
    run_search_state expected{r.cursor_after, r.high_water_after, r.peak_after, {}};
    if (r.length_class) {
        run_count(state, r.length_class) = 5;
        run_count(expected, r.length_class) = 4;
    }

    release_run(bitmap.data(), &state, r.first, r.length);
    EXPECT_TRUE(bitmap == expected_bitmap);
    EXPECT_EQ(std::memcmp(&state, &expected, sizeof state), 0)
        << state.cursor << " " << state.high_water << " " << state.peak_high_water;
}

INSTANTIATE_TEST_SUITE_P(
    cases, release_run_test,
    ::testing::Values(
        // The mark drops to the byte after the last busy one: 1000.
        release_case{"bit_run_at_the_top", 1200, 63, 10, 1263, 10, 1000, 1263, 63},
        release_case{"lowers_the_cursor", 1001, 7, 1100, 1008, 1001, 1008, 100, 7},
        release_case{"drop_under_a_word_keeps_the_mark", 1010, 53, 10, 1063, 10, 1063, 100, 53},
        release_case{"drop_of_a_word_lowers_the_mark", 1010, 54, 10, 1064, 10, 1000, 1064, 54},
        release_case{"cursor_0_keeps_the_mark", 1200, 30, 0, 1230, 0, 1230, 100, 30},
        release_case{"byte_run", 1600, 100, 10, 1700, 10, 1000, 1700, 76},
        release_case{"word_run", 1536, 1024, 10, 2560, 10, 1000, 2560, 142},
        release_case{"block_run", 1024, 4608, 4000, 5632, 1024, 1000, 5632, 198},
        release_case{"uncounted_run", 1024, 40000, 10, 41024, 10, 1000, 41024, 0}),
    [](const ::testing::TestParamInfo<release_case>& info) {
        return std::string(info.param.name);
    });

}  // namespace
}  // namespace tarnheap::testing
