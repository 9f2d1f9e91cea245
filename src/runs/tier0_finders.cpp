// Runs of 2 to 63 bits starting at any bit: a 64-bit span, loaded at any byte, moves over the
// bitmap; a popcount rejects spans without room, and a shift-or mask of the span's busy bits
// gives the lowest start that fits.
#include <algorithm>

#include "runs/bitmap_access.h"
#include "runs/search_order.h"
#include "runs/tier_tables.h"

namespace tarnheap {
namespace {

// How the member for k bits moves its span. The step keeps every start covered by some span:
// a span at byte q holds the starts 8q .. 8q + 64 - k. From 41 bits on the step falls to 2 and
// then 1 byte, so a slice that every fitting run in the span must cover is tested first, and
// while it is busy the span jumps past every start that would need it.
struct span_plan {
    unsigned first_k, last_k;
    unsigned step;   // bytes, when the span holds no fitting run
    uint64_t slice;  // span bits every fitting run covers; 0: no pre-test
    unsigned jump;   // bytes, while the slice is busy
};

constexpr span_plan SPAN_PLANS[] = {
    {2, 8, 7, 0, 0},
    {9, 16, 6, 0, 0},
    {17, 24, 5, 0, 0},
    {25, 32, 4, 0, 0},
    {33, 40, 3, 0, 0},
    {41, 47, 2, uint64_t{0xff} << 32, 4},
    {48, 48, 2, uint64_t{0xff} << 40, 5},
    {49, 55, 1, uint64_t{0xffff} << 32, 4},
    // With a 1-byte step the members for 58 to 63 bits pass over runs that start more than
    // 64 - k bits into their byte: that trade is kept.
    {56, 63, 1, uint64_t{0xffff} << 40, 5},
};

constexpr bool span_plans_hold() {
    unsigned next_k = 2;
    for (const span_plan& plan : SPAN_PLANS) {
        if (plan.first_k != next_k || plan.last_k < plan.first_k) return false;
        next_k = plan.last_k + 1;
        unsigned last_full_k = std::min(plan.last_k, 57u);
        if (plan.first_k <= last_full_k && 8 * plan.step > 65 - last_full_k) return false;
        if (plan.slice == 0) continue;
        unsigned low = static_cast<unsigned>(__builtin_ctzll(plan.slice));
        unsigned high = 63 - static_cast<unsigned>(__builtin_clzll(plan.slice));
        // Every start 0 .. 64 - k covers the slice, and so does every start the jump passes.
        if (64 - plan.first_k > low || high > plan.first_k - 1) return false;
        if (8 * plan.jump > low + 1) return false;
    }
    return next_k == 64;
}
static_assert(span_plans_hold());

constexpr span_plan span_plan_for(unsigned k) {
    for (const span_plan& plan : SPAN_PLANS)
        if (k <= plan.last_k) return plan;
    return {};
}

// Bit b of the result is set when any of bits b .. b + WIDTH - 1 of the word is: the covered
// width doubles with each shift instead of growing by one.
template <unsigned WIDTH>
constexpr uint64_t busy_within(uint64_t word) {
    if constexpr (WIDTH == 1) {
        return word;
    } else {
        constexpr unsigned HALF = (WIDTH + 1) / 2;
        uint64_t half = busy_within<HALF>(word);
        return half | (half >> (WIDTH - HALF));
    }
}
static_assert(busy_within<5>(uint64_t{1} << 10) == uint64_t{0x1f} << 6);
static_assert(busy_within<63>(uint64_t{1} << 63) == ~uint64_t{0} << 1);

template <unsigned K>
struct bit_run_scan {
    static constexpr span_plan PLAN = span_plan_for(K);
    static constexpr uint64_t STARTS = (uint64_t{1} << (65 - K)) - 1;
    static constexpr uint64_t RUN = (uint64_t{1} << K) - 1;

    uint8_t* bitmap;

    // Fewer than K clear bits: no run fits. For 63 bits that is more than one busy bit.
    static TARNHEAP_HOT bool has_room(uint64_t span) {
        if constexpr (K == 63)
            return (span & (span - 1)) == 0;
        else
            return __builtin_popcountll(span) <= static_cast<int>(64 - K);
    }

    TARNHEAP_HOT int64_t find(uint64_t from) const {
        uint64_t byte = from / 8;
        for (;;) {
            uint64_t span = load_word(bitmap + byte);
            if (span == ~uint64_t{0}) {
                byte += 8;
                continue;
            }
            if constexpr (PLAN.slice != 0) {
                if (span & PLAN.slice) {
                    byte += PLAN.jump;
                    continue;
                }
            }
            if (has_room(span)) {
                uint64_t fits = ~busy_within<K>(span) & STARTS;
                if (fits != 0) return static_cast<int64_t>(8 * byte + __builtin_ctzll(fits));
            }
            byte += PLAN.step;
        }
    }

    // Every start the scan returns leaves the run inside the word at its byte.
    TARNHEAP_HOT void claim(uint64_t first) const {
        uint8_t* at = bitmap + first / 8;
        store_word(at, load_word(at) | RUN << (first % 8));
    }
};

template <unsigned K>
TARNHEAP_HOT int64_t claim_bit_run(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    uint64_t start = std::max<uint64_t>(state->cursor, shorter_run_bits<K>(*state));
    return claim_first_fit(state, start, K, run_length_class(K), limit, bit_run_scan<K>{bitmap});
}

template <unsigned K>
int64_t bit_run_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    return claim_bit_run<K>(bitmap, limit, state);
}

template <unsigned K>
__attribute__((target("popcnt"))) int64_t bit_run_finder_popcnt(uint8_t* bitmap, uint64_t limit,
                                                                run_search_state* state) {
    return claim_bit_run<K>(bitmap, limit, state);
}

constexpr auto BASELINE_MEMBERS =
    tier_members<2, 62>([](auto k) -> run_finder { return bit_run_finder<decltype(k)::value>; });
constexpr auto POPCNT_MEMBERS = tier_members<2, 62>(
    [](auto k) -> run_finder { return bit_run_finder_popcnt<decltype(k)::value>; });

}  // namespace

run_finder bit_run_member(unsigned k, bool use_popcnt) {
    return use_popcnt ? POPCNT_MEMBERS[k] : BASELINE_MEMBERS[k];
}

}  // namespace tarnheap
