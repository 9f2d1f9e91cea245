// The run finders of every slot against the plain reference search, over random bitmaps and
// search states, and the cases of the finders' own trades that random bitmaps rarely reach.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "runs/run_finder_table.h"
#include "runs/tier_tables.h"
#include "support/reference_run_search.h"

namespace tarnheap::testing {
namespace {

// Beyond the limit, more zero bytes than any unbounded scan reaches (a 704-bit word run or a
// 504-bit byte run, plus its probes).
constexpr uint64_t TAIL_BYTES = 512;
constexpr uint64_t GROUP_LIMIT = 68385;

struct bitmap_case {
    std::vector<uint8_t> bytes;
    uint64_t limit;
    run_search_state state;
};

std::vector<uint8_t> zero_bitmap(uint64_t limit) {
    return std::vector<uint8_t>((limit + 511) / 512 * 64 + TAIL_BYTES, 0);
}

void set_bits(std::vector<uint8_t>& bytes, uint64_t first, uint64_t count, bool busy) {
    for (uint64_t bit = first; bit < first + count && bit / 8 < bytes.size(); ++bit) {
        uint8_t mask = uint8_t(1u << (bit % 8));
        bytes[bit / 8] = busy ? bytes[bit / 8] | mask : bytes[bit / 8] & ~mask;
    }
}

class random_cases {
  public:
    explicit random_cases(uint64_t seed) : rng_(seed) {}

    bitmap_case next() {
        bitmap_case c{};
        uint64_t shape = pick(10);
        c.limit = shape == 0   ? GROUP_LIMIT
                  : shape == 1 ? 1024
                  : shape <= 3 ? 4096 + pick(36000)
                               : 1 + pick(6000);
        c.bytes = zero_bitmap(c.limit);
        switch (pick(4)) {
            case 0:
                fill_uniform(c);
                break;
            case 1:
                fill_clustered(c);
                break;
            case 2:
                fill_holes(c);
                break;
            default:
                break;  // nearly clear: only the specks set below
        }
        set_bits(c.bytes, pick(c.limit), 1 + pick(3), true);
        set_bits(c.bytes, c.limit, c.bytes.size() * 8, false);
        c.state.cursor = uint32_t(pick(4) == 0 ? 0 : pick(c.limit + 1));
        c.state.high_water = uint32_t(pick(4) == 0 ? c.limit : pick(c.limit + 1));
        c.state.peak_high_water = uint32_t(pick(c.limit * 2 + 1));
        count_live_runs(c);
        return c;
    }

    uint64_t pick(uint64_t n) { return rng_() % n; }

  private:
    void fill_uniform(bitmap_case& c) {
        static constexpr double DENSITIES[] = {0.02, 0.1, 0.5, 0.9, 0.98, 1.0};
        std::bernoulli_distribution busy(DENSITIES[pick(6)]);
        for (uint64_t bit = 0; bit < c.limit; ++bit) set_bits(c.bytes, bit, 1, busy(rng_));
    }

    // Alternating busy and free stretches of lengths spread over four orders of magnitude.
    void fill_clustered(bitmap_case& c) {
        unsigned busy_scale = unsigned(pick(14)), free_scale = unsigned(pick(14));
        for (uint64_t bit = 0; bit < c.limit;) {
            uint64_t busy = 1 + pick(uint64_t{1} << busy_scale);
            set_bits(c.bytes, bit, busy, true);
            bit += busy + 1 + pick(uint64_t{1} << free_scale);
        }
    }

    // All busy but holes of about a finder's length, placed near span, byte, word and block
    // boundaries and near the limit.
    void fill_holes(bitmap_case& c) {
        set_bits(c.bytes, 0, c.limit, true);
        for (uint64_t n = 1 + pick(8); n > 0; --n) {
            uint64_t length = reference_member_for_slot(unsigned(1 + pick(256))).length;
            length = length + pick(5) >= 2 ? length + pick(5) - 2 : 1;
            static constexpr uint64_t ANCHORS[] = {56, 8, 64, 512};
            uint64_t first = pick(4) == 0 ? c.limit - std::min(c.limit, length + pick(3))
                                          : pick(c.limit) / ANCHORS[pick(4)] * ANCHORS[pick(4)];
            first = first + pick(19) >= 9 ? first + pick(19) - 9 : 0;
            set_bits(c.bytes, first, length, false);
        }
    }

    // Counters whose weighted sum stays within the limit, as live runs' bits do.
    void count_live_runs(bitmap_case& c) {
        uint64_t room = pick(3) == 0 ? 0 : pick(c.limit + 1);
        unsigned top_class = 1 + unsigned(pick(RUN_CLASS_COUNT));
        for (unsigned attempts = 0; attempts < 40; ++attempts) {
            unsigned length_class = 1 + unsigned(pick(top_class));
            uint64_t length = run_class_length(length_class);
            if (length == 0 || length > room) continue;
            room -= length;
            ++c.state.run_counts[length_class - 1];
        }
    }

    std::mt19937_64 rng_;
};

struct subject {
    unsigned slot;
    run_finder finder;  // null: the generic finder
};

std::vector<subject> all_subjects() {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    std::vector<subject> subjects;
    for (unsigned slot = 0; slot < GENERIC_SLOT; ++slot)
        subjects.push_back({slot, table[slot].fixed});
    subjects.push_back({GENERIC_SLOT, nullptr});
    // The table holds one variant of each bit-level member; the other runs here too.
    bool popcnt = processor_has_popcnt();
    for (unsigned k = 2; k <= 63; ++k) {
        if (popcnt)
            subjects.push_back({k, bit_run_member(k, false)});
        else
            EXPECT_EQ(table[k].fixed, bit_run_member(k, false));
    }
    return subjects;
}

TEST(run_finders, every_slot_matches_the_reference_search) {
    std::vector<subject> subjects = all_subjects();
    random_cases cases(0x7a12'95c3'0b4e'd801);
    for (unsigned trial = 0; trial < 400; ++trial) {
        bitmap_case c = cases.next();
        uint64_t generic_length =
            cases.pick(2) ? 1 + cases.pick(c.limit + 600) : 512 * cases.pick(70);
        for (const subject& s : subjects) {
            SCOPED_TRACE(::testing::Message()
                         << "trial " << trial << ", slot " << s.slot << ", limit " << c.limit);
            bitmap_case mine = c, theirs = c;
            int64_t expected, result;
            uint64_t bits = c.bytes.size() * 8;
            if (s.finder == nullptr) {
                uint64_t length = generic_length;
                result = generic_block_finder(mine.bytes.data(), c.limit, &length, &mine.state);
                reference_member member = reference_generic_member(generic_length);
                expected = reference_find(theirs.bytes.data(), bits, c.limit, theirs.state, member);
                ASSERT_EQ(length, expected < 0 ? generic_length : member.length);
            } else {
                result = s.finder(mine.bytes.data(), c.limit, &mine.state);
                expected = reference_find(theirs.bytes.data(), bits, c.limit, theirs.state,
                                          reference_member_for_slot(s.slot));
            }
            ASSERT_EQ(result, expected);
            ASSERT_TRUE(mine.bytes == theirs.bytes);
            ASSERT_EQ(std::memcmp(&mine.state, &theirs.state, sizeof mine.state), 0);
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
};

class run_finder_edges : public ::testing::TestWithParam<edge_case> {};

TEST_P(run_finder_edges, claims_the_expected_run) {
    const edge_case& e = GetParam();
    std::vector<uint8_t> bytes = zero_bitmap(e.limit);
    set_bits(bytes, 0, e.busy_background ? e.limit : 0, true);
    for (const bit_range& r : e.ranges) set_bits(bytes, r.first, r.count, !e.busy_background);
    std::vector<uint8_t> before = bytes;
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    run_search_state state{};
    EXPECT_EQ(table[e.slot].fixed(bytes.data(), e.limit, &state), e.expected);
    if (e.expected < 0) {
        EXPECT_TRUE(bytes == before);
        EXPECT_EQ(state.high_water, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    cases, run_finder_edges,
    ::testing::Values(
        edge_case{"two_bits_straddle_a_byte", 2, 64, false, {{0, 1}, {2, 1}, {4, 1}, {6, 1}}, 7},
        edge_case{"two_bits_straddle_56_bit_spans", 2, 512, true, {{63, 2}}, 63},
        edge_case{"eight_bits_in_the_next_span", 8, 512, true, {{57, 8}}, 57},
        edge_case{"forty_bits_in_the_next_span", 40, 512, true, {{25, 40}}, 25},
        edge_case{"pre_tested_run_behind_a_busy_slice", 47, 512, true, {{30, 47}}, 30},
        edge_case{"fifty_seven_bits_at_the_last_start", 57, 512, true, {{7, 57}}, 7},
        edge_case{"sixty_three_bits_after_bit_0", 63, 512, false, {{0, 1}}, 1},
        edge_case{"sixty_three_bits_pass_over_bit_2", 63, 512, false, {{1, 1}}, 8},
        edge_case{"fifty_eight_bits_pass_over_bit_7", 58, 512, false, {{6, 1}}, 8},
        edge_case{"bit_run_ending_at_the_limit", 10, 100, true, {{90, 10}}, 90},
        edge_case{"bit_run_one_past_the_limit", 10, 99, true, {{90, 9}}, -1},
        edge_case{"byte_run_ending_at_the_limit", 72, 128, true, {{64, 64}}, 64},
        edge_case{"byte_run_one_past_the_limit", 72, 127, true, {{64, 63}}, -1},
        edge_case{"byte_run_skips_an_unaligned_run", 72, 2000, true, {{3, 64}, {800, 64}}, 800},
        edge_case{"byte_run_inside_an_unaligned_hole", 72, 2000, true, {{3, 72}}, 8},
        edge_case{"word_run_inside_an_unaligned_hole", 136, 4000, true, {{100, 600}}, 128},
        edge_case{"word_run_fills_its_hole", 136, 4000, true, {{32, 544}}, 64},
        edge_case{"bounded_word_run_at_the_limit", 140, 1536, true, {{768, 768}}, 768},
        edge_case{"bounded_word_run_past_the_limit", 140, 1535, true, {{768, 767}}, -1},
        edge_case{"block_run_at_the_limit", 200, 8192, true, {{4096, 4096}}, 4096},
        edge_case{"block_run_past_the_limit", 200, 8191, true, {{4096, 4095}}, -1},
        edge_case{"busy_last_block_jumps_a_run", 200, 65536, false, {{7 * 512 + 100, 1}}, 4096},
        edge_case{"busy_inner_block_moves_past_it", 200, 65536, false, {{3 * 512 + 9, 1}}, 2048}),
    [](const ::testing::TestParamInfo<edge_case>& info) { return std::string(info.param.name); });

TEST(run_finders, first_claim_on_a_clear_bitmap_starts_at_0) {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    for (unsigned k = 2; k <= 63; ++k) {
        std::vector<uint8_t> bytes = zero_bitmap(512);
        run_search_state state{};
        EXPECT_EQ(table[k].fixed(bytes.data(), 512, &state), 0) << k;
        EXPECT_EQ(state.high_water, k);
        EXPECT_EQ(run_count(state, k), 1u);
        EXPECT_EQ(state.cursor, 0u);
    }
}

TEST(run_finders, rescan_prefers_a_hole_below_the_start_estimate) {
    std::vector<uint8_t> bytes = zero_bitmap(1000);
    set_bits(bytes, 0, 500, true);
    set_bits(bytes, 16, 10, false);
    run_search_state state{};
    state.cursor = 8;
    state.high_water = 400;
    run_count(state, 5) = 40;  // 200 bits of shorter runs
    EXPECT_EQ(tier_member(0, 10)(bytes.data(), 1000, &state), 16);
    EXPECT_EQ(state.high_water, 400u);
}

TEST(run_finders, block_claims_leave_their_bits_clear) {
    std::vector<uint8_t> bytes = zero_bitmap(65536);
    run_search_state state{};
    run_finder slot_200 = tier_member(3, 8);
    EXPECT_EQ(slot_200(bytes.data(), 65536, &state), 0);
    EXPECT_EQ(slot_200(bytes.data(), 65536, &state), 0);
    EXPECT_EQ(state.high_water, 4096u);
    EXPECT_EQ(run_count(state, 197), 2u);
    EXPECT_TRUE(bytes == zero_bitmap(65536));
}

TEST(run_finders, generic_length_rounds_up_to_whole_blocks) {
    struct rounding {
        uint64_t asked, claimed;
    };
    for (rounding r : {rounding{1, 512}, rounding{4097, 4608}}) {
        std::vector<uint8_t> bytes = zero_bitmap(65536);
        run_search_state state{};
        uint64_t length = r.asked;
        EXPECT_EQ(generic_block_finder(bytes.data(), 65536, &length, &state), 0);
        EXPECT_EQ(length, r.claimed);
        EXPECT_EQ(state.high_water, r.claimed);
    }
}

}  // namespace
}  // namespace tarnheap::testing
