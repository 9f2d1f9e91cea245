// The run finders of every slot against the plain reference search, over random bitmaps and
// search states; each of the finders' designed trades once, with its figure; the release of
// runs and its bookkeeping.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform/processor.h"
#include "runs/run_finder_table.h"
#include "runs/tier_tables.h"
#include "support/case_printer.h"
#include "support/reference_run_search.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

// Beyond the limit, more zero bytes than any unbounded scan reaches (a 704-bit word run or a
// 504-bit byte run, plus its probes).
constexpr uint64_t TAIL_BYTES = 512;
constexpr uint64_t GROUP_LIMIT = 68385;

struct bitmap_case {
    uint64_t limit;
    std::vector<uint8_t> bytes = std::vector<uint8_t>((limit + 511) / 512 * 64 + TAIL_BYTES, 0);
    run_search_state state{};
};

void set_bits(std::vector<uint8_t>& bytes, uint64_t first, uint64_t count, bool busy) {
    for (uint64_t bit = first; bit < first + count && bit / 8 < bytes.size(); ++bit) {
        uint8_t mask = uint8_t(1u << (bit % 8));
        bytes[bit / 8] = busy ? bytes[bit / 8] | mask : bytes[bit / 8] & ~mask;
    }
}

// A finder and the slot whose reference member it must match; the generic finder is the one
// without a fixed run.
struct subject {
    unsigned slot;
    run_finder fixed;
};

std::vector<subject> all_subjects() {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    std::vector<subject> subjects;
    for (unsigned slot = 0; slot < GENERIC_SLOT; ++slot)
        subjects.push_back({slot, table[slot].fixed});
    subjects.push_back({GENERIC_SLOT, nullptr});
    // With popcnt the table holds the other variant of each bit-level member; this one runs too.
    if (processor_has_popcnt())
        for (unsigned k = 2; k <= 63; ++k) subjects.push_back({k, bit_run_member(k, false)});
    return subjects;
}

// Runs the finder and the reference on copies of one case; they must agree on the run, every
// byte of the bitmap and the whole search state. Returns the finder's result.
int64_t expect_matches_reference(const bitmap_case& c, const subject& s,
                                 uint64_t generic_length = 0) {
    bitmap_case mine = c, theirs = c;
    uint64_t length = generic_length;
    int64_t result = s.fixed
                         ? s.fixed(mine.bytes.data(), c.limit, &mine.state)
                         : generic_block_finder(mine.bytes.data(), c.limit, &length, &mine.state);
    reference_member member =
        s.fixed ? reference_member_for_slot(s.slot) : reference_generic_member(generic_length);
    int64_t expected =
        reference_find(theirs.bytes.data(), c.bytes.size() * 8, c.limit, theirs.state, member);
    EXPECT_EQ(result, expected);
    // The generic finder rounds the length it was asked for only when it finds a run.
    if (!s.fixed) {
        EXPECT_EQ(length, expected < 0 ? generic_length : member.length);
    }
    EXPECT_TRUE(mine.bytes == theirs.bytes);
    EXPECT_EQ(std::memcmp(&mine.state, &theirs.state, sizeof mine.state), 0);
    return result;
}

// Bitmaps of many shapes: uniform densities, busy and free stretches over four orders of
// magnitude, finder-sized holes near span, byte, word and block boundaries and the limit, or
// nearly clear; with a state whose counters' bits fit within the limit, as live runs' do.
bitmap_case random_case(std::mt19937_64& rng) {
    auto pick = [&rng](uint64_t n) { return rng() % n; };
    uint64_t shape = pick(10);
    bitmap_case c{shape == 0   ? GROUP_LIMIT
                  : shape == 1 ? 1024
                  : shape <= 3 ? 4096 + pick(36000)
                               : 1 + pick(6000)};
    switch (pick(4)) {
        case 0: {
            static constexpr double DENSITIES[] = {0.02, 0.1, 0.5, 0.9, 0.98, 1.0};
            std::bernoulli_distribution busy(DENSITIES[pick(6)]);
            for (uint64_t bit = 0; bit < c.limit; ++bit) set_bits(c.bytes, bit, 1, busy(rng));
            break;
        }
        case 1: {
            uint64_t busy_scale = pick(14), free_scale = pick(14);
            for (uint64_t bit = 0; bit < c.limit;) {
                uint64_t busy = 1 + pick(1u << busy_scale);
                set_bits(c.bytes, bit, busy, true);
                bit += busy + 1 + pick(1u << free_scale);
            }
            break;
        }
        case 2:
            set_bits(c.bytes, 0, c.limit, true);
            for (uint64_t n = 1 + pick(8); n > 0; --n) {
                uint64_t length = reference_member_for_slot(unsigned(1 + pick(256))).length;
                uint64_t jitter = pick(5);
                length = length + jitter >= 2 ? length + jitter - 2 : 1;
                static constexpr uint64_t ANCHORS[] = {56, 8, 64, 512};
                uint64_t anchor = ANCHORS[pick(4)];
                uint64_t first = pick(4) == 0 ? c.limit - std::min(c.limit, length + pick(3))
                                              : pick(c.limit) / anchor * anchor;
                set_bits(c.bytes, std::max<uint64_t>(first + pick(19), 9) - 9, length, false);
            }
            break;
    }
    set_bits(c.bytes, pick(c.limit), 1 + pick(3), true);
    set_bits(c.bytes, c.limit, c.bytes.size() * 8, false);
    c.state.cursor = uint32_t(pick(4) == 0 ? 0 : pick(c.limit + 1));
    c.state.high_water = uint32_t(pick(4) == 0 ? c.limit : pick(c.limit + 1));
    c.state.peak_high_water = uint32_t(pick(c.limit * 2 + 1));
    uint64_t room = pick(3) == 0 ? 0 : pick(c.limit + 1);
    unsigned top_class = 1 + unsigned(pick(RUN_CLASS_COUNT));
    for (unsigned attempt = 0; attempt < 40; ++attempt) {
        unsigned length_class = 1 + unsigned(pick(top_class));
        uint64_t length = run_class_length(length_class);
        if (length == 0 || length > room) continue;
        room -= length;
        ++run_count(c.state, length_class);
    }
    return c;
}

TEST(run_finders, every_slot_matches_the_reference_search) {
    std::vector<subject> subjects = all_subjects();
    std::mt19937_64 rng(0x7a12'95c3'0b4e'd801);
    for (unsigned trial = 0; trial < 400; ++trial) {
        bitmap_case c = random_case(rng);
        uint64_t generic_length = rng() % 2 ? 1 + rng() % (c.limit + 600) : 512 * (rng() % 70);
        for (const subject& s : subjects) {
            SCOPED_TRACE(::testing::Message()
                         << "trial " << trial << ", slot " << s.slot << ", limit " << c.limit);
            expect_matches_reference(c, s, generic_length);
            if (::testing::Test::HasFailure()) return;
        }
    }
}

// Bit ranges that are set (or, with busy_background, clear) in a bitmap of `limit` bits.
struct bit_range {
    uint64_t first, count;
};

struct edge_case {
    const char* name;
    unsigned slot;
    uint64_t limit;
    bool busy_background;
    std::vector<bit_range> ranges;
    int64_t expected;
    uint32_t cursor = 0, high_water = 0;
    unsigned length_class = 0, count = 0;  // live runs of one class
};

class run_finder_edges : public ::testing::TestWithParam<edge_case> {};

TEST_P(run_finder_edges, claim_the_expected_run_as_the_reference_does) {
    const edge_case& e = GetParam();
    bitmap_case c{e.limit};
    set_bits(c.bytes, 0, e.busy_background ? e.limit : 0, true);
    for (const bit_range& r : e.ranges) set_bits(c.bytes, r.first, r.count, !e.busy_background);
    c.state.cursor = e.cursor;
    c.state.high_water = e.high_water;
    if (e.count) run_count(c.state, e.length_class) = e.count;
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    EXPECT_EQ(expect_matches_reference(c, {e.slot, table[e.slot].fixed}), e.expected);
}

// Each designed trade of the finders once, with the figure it must give: the reference search
// is held to these too.
INSTANTIATE_TEST_SUITE_P(
    cases, run_finder_edges,
    ::testing::Values(
        // The 1-bit finder starts at the cursor's byte and keeps a higher mark.
        edge_case{"one_bit_from_the_cursor_byte", 1, 1024, true, {{800, 4}}, 800, 802, 1000},
        edge_case{"sixty_three_bits_pass_over_bit_2", 63, 512, false, {{1, 1}}, 8},
        // 200 bits of shorter runs put the start estimate past the hole below the mark; the
        // rescan from the cursor finds it.
        edge_case{"rescan_for_hole", 10, 1000, true, {{16, 10}, {500, 500}}, 16, 8, 400, 5, 40},
        edge_case{"byte_run_inside_an_unaligned_hole", 72, 2000, true, {{3, 72}}, 8},
        edge_case{"bounded_word_run_past_the_limit", 140, 1535, true, {{768, 767}}, -1},
        edge_case{"busy_inner_block_moves_past_it", 200, 65536, false, {{3 * 512 + 9, 1}}, 2048}),
    [](const auto& info) { return std::string(info.param.name); });

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
    bitmap_case c{6000 * 8}, expected{6000 * 8};
    set_bits(c.bytes, 0, 1000, true);
    set_bits(expected.bytes, 0, 1000, true);
    set_bits(c.bytes, r.first, r.length, true);
    c.state = {r.cursor, r.high_water, 100, {}};
    expected.state = {r.cursor_after, r.high_water_after, r.peak_after, {}};
    if (r.length_class) {
        run_count(c.state, r.length_class) = 5;
        run_count(expected.state, r.length_class) = 4;
    }
    release_run(c.bytes.data(), &c.state, r.first, r.length);
    EXPECT_TRUE(c.bytes == expected.bytes);
    EXPECT_EQ(std::memcmp(&c.state, &expected.state, sizeof c.state), 0)
        << c.state.cursor << " " << c.state.high_water << " " << c.state.peak_high_water;
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
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
