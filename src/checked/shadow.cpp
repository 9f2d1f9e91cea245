#include "checked/shadow.h"

#include "checked/misuse_report.h"
#include "platform/platform.h"

namespace tarnheap {
namespace {

// Below the heap's region and far from the zeroed region's hint, so that the checked heap's
// reservations land where the release heap's do.
constexpr uint64_t SHADOW_HINT = 0x7e0000000000;

uint64_t* filled_words() {
    return reinterpret_cast<uint64_t*>(checked_shadow.base + SHADOW_LAYOUT.filled_granules);
}

uint64_t filled_word_offset(uint64_t granule) {
    return SHADOW_LAYOUT.filled_granules + granule / 64 * 8;
}

// The bits of granules [first, end) in word `word` of the marks.
uint64_t bits_in_word(uint64_t word, uint64_t first, uint64_t end) {
    uint64_t low = word * 64;
    uint64_t from = first > low ? first - low : 0;
    uint64_t high = end - low >= 64 ? ~uint64_t{0} : (uint64_t{1} << (end - low)) - 1;
    return high & ~((uint64_t{1} << from) - 1);
}

// The next word of the marks after `word` that may hold one: pieces never committed hold none.
uint64_t next_marked_word(uint64_t word) {
    uint64_t offset = filled_word_offset(word * 64);
    if (shadow_committed(offset)) return word + 1;
    return word + (SHADOW_PIECE_BYTES - offset % SHADOW_PIECE_BYTES) / 8;
}

uint64_t bootstrap_unit(uint64_t address) {
    return (address - reinterpret_cast<uint64_t>(&heap_state)) >> BOOTSTRAP_UNIT_SHIFT;
}

}  // namespace

constinit checked_shadow_record checked_shadow{};

void start_shadow() {
    void* base = platform_virtual_alloc(reinterpret_cast<void*>(SHADOW_HINT), SHADOW_LAYOUT.bytes,
                                        MEMORY_RESERVE, PAGE_READ_WRITE);
    if (base == nullptr)
        base =
            platform_virtual_alloc(nullptr, SHADOW_LAYOUT.bytes, MEMORY_RESERVE, PAGE_READ_WRITE);
    if (base == nullptr) stop_for_shadow("reserve", SHADOW_LAYOUT.bytes);
    checked_shadow.base = static_cast<uint8_t*>(base);
}

void release_shadow() {
    if (checked_shadow.base != nullptr)
        platform_virtual_free(checked_shadow.base, 0, MEMORY_RELEASE);
    checked_shadow = {};
}

void commit_shadow(uint64_t offset, uint64_t bytes) {
    for (uint64_t piece = offset / SHADOW_PIECE_BYTES;
         piece <= (offset + bytes - 1) / SHADOW_PIECE_BYTES; ++piece) {
        uint64_t& word = checked_shadow.committed[piece / 64];
        if ((word >> (piece % 64)) & 1) continue;
        void* at = checked_shadow.base + piece * SHADOW_PIECE_BYTES;
        if (platform_virtual_alloc(at, SHADOW_PIECE_BYTES, MEMORY_COMMIT, PAGE_READ_WRITE) != at)
            stop_for_shadow("commit", SHADOW_PIECE_BYTES);
        word |= uint64_t{1} << (piece % 64);
    }
}

bool granule_filled(uint64_t granule) {
    return next_filled_granule(granule, granule + 1) == granule;
}

void mark_filled_granules(uint64_t first, uint64_t end) {
    uint64_t first_word = filled_word_offset(first);
    commit_shadow(first_word, filled_word_offset(end - 1) + 8 - first_word);
    uint64_t* words = filled_words();
    for (uint64_t word = first / 64; word <= (end - 1) / 64; ++word)
        words[word] |= bits_in_word(word, first, end);
}

void clear_filled_granules(uint64_t first, uint64_t end) {
    uint64_t* words = filled_words();
    for (uint64_t word = first / 64; word <= (end - 1) / 64; word = next_marked_word(word))
        if (shadow_committed(filled_word_offset(word * 64)))
            words[word] &= ~bits_in_word(word, first, end);
}

uint64_t next_filled_granule(uint64_t first, uint64_t end) {
    const uint64_t* words = filled_words();
    for (uint64_t word = first / 64; word <= (end - 1) / 64; word = next_marked_word(word)) {
        if (!shadow_committed(filled_word_offset(word * 64))) continue;
        uint64_t marks = words[word] & bits_in_word(word, first, end);
        if (marks != 0) return word * 64 + static_cast<uint64_t>(__builtin_ctzll(marks));
    }
    return end;
}

uint64_t next_unfilled_granule(uint64_t first, uint64_t end) {
    const uint64_t* words = filled_words();
    for (uint64_t word = first / 64; word <= (end - 1) / 64; ++word) {
        if (!shadow_committed(filled_word_offset(word * 64)))
            return word * 64 > first ? word * 64 : first;
        uint64_t unmarked = ~words[word] & bits_in_word(word, first, end);
        if (unmarked != 0) return word * 64 + static_cast<uint64_t>(__builtin_ctzll(unmarked));
    }
    return end;
}

bool bootstrap_piece_released(uint64_t address) {
    uint64_t unit = bootstrap_unit(address);
    uint64_t offset = SHADOW_LAYOUT.bootstrap_released + unit / 64 * 8;
    return (shadow_read<uint64_t>(offset) >> (unit % 64)) & 1;
}

void mark_bootstrap_piece_released(uint64_t address) {
    // Pieces are also released while the heap starts, before there is a shadow, and where it
    // could not start.
    if (checked_shadow.base == nullptr) return;
    uint64_t unit = bootstrap_unit(address);
    shadow_write<uint64_t>(SHADOW_LAYOUT.bootstrap_released + unit / 64 * 8) |= uint64_t{1}
                                                                                << (unit % 64);
}

}  // namespace tarnheap
