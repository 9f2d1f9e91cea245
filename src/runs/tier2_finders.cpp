// Runs of 512 to 4032 bits on word boundaries: j consecutive zero words. The last word of the
// candidate is probed; a busy probe moves the candidate past it, a zero one is verified
// downward.
#include <algorithm>
#include <cstring>

#include "runs/bitmap_access.h"
#include "runs/search_order.h"
#include "runs/tier_tables.h"

namespace tarnheap {
namespace {

template <unsigned J>
struct word_run_scan {
    // From 12 words on the scan stops where a run would pass the limit's word. Shorter runs
    // always find one in the zero tail beyond the limit and need no bound.
    static constexpr bool BOUNDED = J >= 12;

    uint8_t* bitmap;
    int64_t last_first_word;  // ceil(limit / 64) - J

    TARNHEAP_HOT uint64_t word(uint64_t index) const { return load_word(bitmap + 8 * index); }

    // The highest busy word below the probe, or NO_RUN.
    TARNHEAP_HOT int64_t highest_busy_word(uint64_t first) const {
        for (uint64_t index = first + J - 1; index-- > first;)
            if (word(index) != 0) return static_cast<int64_t>(index);
        return NO_RUN;
    }

    TARNHEAP_HOT int64_t find(uint64_t from) const {
        uint64_t first = from / 64;
        for (;;) {
            if constexpr (BOUNDED) {
                if (static_cast<int64_t>(first) > last_first_word) return NO_RUN;
            }
            if (word(first + J - 1) != 0) {
                first += J;
                continue;
            }
            int64_t busy = highest_busy_word(first);
            if (busy == NO_RUN) return static_cast<int64_t>(64 * first);
            first = static_cast<uint64_t>(busy) + 1;
        }
    }

    TARNHEAP_HOT void claim(uint64_t first) const { std::memset(bitmap + first / 8, 0xff, 8 * J); }
};

template <unsigned J>
int64_t word_run_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    constexpr uint64_t LENGTH = 64 * J;
    constexpr unsigned LENGTH_CLASS = run_length_class(LENGTH);
    uint64_t start = std::max<uint64_t>(state->cursor, shorter_run_bits<LENGTH_CLASS>(*state));
    int64_t last_first_word = static_cast<int64_t>((limit + 63) / 64) - J;
    return claim_first_fit(state, start, LENGTH, LENGTH_CLASS, limit,
                           word_run_scan<J>{bitmap, last_first_word});
}

constexpr auto WORD_RUN_MEMBERS =
    tier_members<8, 56>([](auto j) -> run_finder { return word_run_finder<decltype(j)::value>; });

}  // namespace

run_finder word_run_member(unsigned j) {
    return WORD_RUN_MEMBERS[j];
}

}  // namespace tarnheap
