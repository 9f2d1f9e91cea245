// The parts of the run search shared by every finder: the single-unit claim, the start
// estimate, and the release that keeps a bitmap's search state true.
#include <algorithm>
#include <cstring>

#include "runs/bitmap_access.h"
#include "runs/run_finder_table.h"
#include "state/heap_state.h"

namespace tarnheap {

int64_t one_bit_finder(uint8_t* bitmap, uint64_t limit, run_search_state* state) {
    uint64_t byte = state->cursor / 8;
    uint64_t word;
    while ((word = load_word(bitmap + byte)) == ~uint64_t{0}) byte += 8;
    uint64_t bit = byte * 8 + static_cast<unsigned>(__builtin_ctzll(~word));
    if (bit >= limit) return -1;
    bitmap[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
    state->cursor = static_cast<uint32_t>(bit);
    state->high_water = std::max(state->high_water, static_cast<uint32_t>(bit + 1));
    ++run_count(*state, 1);
    return static_cast<int64_t>(bit);
}

uint64_t search_start(const run_search_state* state, uint32_t length) {
    uint64_t shorter_bits = 0;
    // Classes ascend with their lengths: the shorter ones are a prefix of the counters.
    for (unsigned c = 1; c <= RUN_CLASS_COUNT && run_class_length(c) < length; ++c)
        shorter_bits += uint64_t{state->run_counts[c - 1]} * run_class_length(c);
    return std::max<uint64_t>(state->cursor, shorter_bits);
}

void release_run(uint8_t* bitmap, run_search_state* state, uint64_t first, uint64_t length) {
    if (state->cursor > first) state->cursor = static_cast<uint32_t>(first);
    if (length <= 63) {
        // Bit runs never reach past the word at their first byte: the finders for 58 to 63 bits
        // start only early enough in a byte for the run to fit.
        uint64_t word = load_word(bitmap + first / 8);
        store_word(bitmap + first / 8, word & ~(((uint64_t{1} << length) - 1) << (first % 8)));
    } else {
        std::memset(bitmap + first / 8, 0, (length + 7) / 8);
    }
    if (unsigned length_class = run_length_class(length)) --run_count(*state, length_class);
    // With the cursor at 0 the mark stays, and so does a drop of less than a word: both keep
    // the finders from shuffling the mark on every small release.
    if (state->cursor == 0) return;
    uint64_t byte = state->high_water / 8;
    while (byte > 0 && bitmap[byte] == 0) --byte;
    uint64_t mark = bitmap[byte] != 0 ? 8 * (byte + 1) : 0;
    if (state->high_water >= mark + 64) {
        state->peak_high_water = std::max(state->peak_high_water, state->high_water);
        state->high_water = static_cast<uint32_t>(mark);
    }
}

void release_group_run(uint64_t first_group, uint64_t groups) {
    release_run(heap_state.group_bitmap, &heap_state.group_search_state, first_group, groups);
}

}  // namespace tarnheap
