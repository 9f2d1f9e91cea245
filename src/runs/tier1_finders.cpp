// Runs of 64 to 504 bits on byte boundaries: j whole zero bytes. A probe slice that every run
// of j zero bytes must contain strides over the bitmap; a zero probe is verified downward.
#include <algorithm>
#include <cstring>

#include "runs/bitmap_access.h"
#include "runs/search_order.h"
#include "runs/tier_tables.h"

namespace tarnheap {
namespace {

template <unsigned J>
struct byte_run_scan {
    // The probe is the last PROBE bytes of the candidate. Any J zero bytes contain one probe
    // position of a stride of J - PROBE + 1, so a busy probe moves the candidate that far.
    static constexpr unsigned PROBE = J <= 10 ? 4 : 8;
    static constexpr unsigned BELOW_PROBE = J - PROBE;
    static constexpr unsigned STRIDE = BELOW_PROBE + 1;
    static constexpr unsigned VERIFY_LOADS = (BELOW_PROBE + 7) / 8;

    uint8_t* bitmap;

    TARNHEAP_HOT bool probe_is_zero(uint64_t first) const {
        if constexpr (PROBE == 4)
            return load_half_word(bitmap + first + BELOW_PROBE) == 0;
        else
            return load_word(bitmap + first + BELOW_PROBE) == 0;
    }

    // The highest busy byte below the probe, or NO_RUN. Loads go downward and the last one, at
    // the candidate's first byte, overlaps the ones above (or the zero probe).
    TARNHEAP_HOT int64_t highest_busy_byte(uint64_t first) const {
        for (unsigned n = 1; n <= VERIFY_LOADS; ++n) {
            uint64_t offset = BELOW_PROBE > 8 * n ? BELOW_PROBE - 8 * n : 0;
            uint64_t word = load_word(bitmap + first + offset);
            if (word != 0)
                return static_cast<int64_t>(first + offset + (63 - __builtin_clzll(word)) / 8);
        }
        return NO_RUN;
    }

    TARNHEAP_HOT int64_t find(uint64_t from) const {
        uint64_t first = from / 8;
        while (load_word(bitmap + first) == ~uint64_t{0}) first += 8;
        for (;;) {
            if (!probe_is_zero(first)) {
                first += STRIDE;
                continue;
            }
            int64_t busy = highest_busy_byte(first);
            if (busy == NO_RUN) return static_cast<int64_t>(8 * first);
            first = static_cast<uint64_t>(busy) + 1;
        }
    }

    TARNHEAP_HOT void claim(uint64_t first) const { std::memset(bitmap + first / 8, 0xff, J); }
};

template <unsigned J>
int64_t byte_run_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    constexpr uint64_t LENGTH = 8 * J;
    constexpr unsigned LENGTH_CLASS = run_length_class(LENGTH);
    uint64_t start = std::max<uint64_t>(state->cursor, shorter_run_bits<LENGTH_CLASS>(*state));
    return claim_first_fit(state, start, LENGTH, LENGTH_CLASS, limit, byte_run_scan<J>{bitmap});
}

constexpr auto BYTE_RUN_MEMBERS =
    tier_members<8, 56>([](auto j) -> run_finder { return byte_run_finder<decltype(j)::value>; });

}  // namespace

run_finder byte_run_member(unsigned j) {
    return BYTE_RUN_MEMBERS[j];
}

}  // namespace tarnheap
