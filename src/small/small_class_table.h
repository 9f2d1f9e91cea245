// The small classes' block sizes and the routing of request sizes to them.
#pragma once

#include <cstdint>

#include "state/layout.h"

namespace tarnheap {

// Classes 0 to 15 step by 4 bytes, 16 to 27 by 16 bytes.
constexpr uint32_t small_block_bytes(unsigned small_class) {
    return small_class < 16 ? 4 * (small_class + 1) : 64 + 16 * (small_class - 15);
}

struct small_class_sizes {
    uint32_t bytes[SMALL_CLASS_COUNT];
};

inline constexpr small_class_sizes SMALL_CLASS_TABLE = [] {
    small_class_sizes table{};
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c) table.bytes[c] = small_block_bytes(c);
    return table;
}();
static_assert(SMALL_CLASS_TABLE.bytes[0] == 4 && SMALL_CLASS_TABLE.bytes[15] == 64);
static_assert(SMALL_CLASS_TABLE.bytes[16] == 80 && SMALL_CLASS_TABLE.bytes[27] == SMALL_MAX);

// Size step j covers requests of 4j + 1 to 4j + 4 bytes. Only steps 0 to 15 are consulted;
// the others hold their own index in both routings.
inline constexpr unsigned ROUTED_STEPS = 16;

struct route_table {
    uint8_t route[SMALL_CLASS_COUNT];
};

// Coarse routing serves 1 to 64 bytes at 4, 8, 16, 32, 48 or 64 bytes: six warm classes
// instead of sixteen half-empty ones.
inline constexpr route_table COARSE_ROUTES = [] {
    route_table table{};
    constexpr uint8_t low[ROUTED_STEPS] = {0, 1, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15};
    for (unsigned j = 0; j < SMALL_CLASS_COUNT; ++j)
        table.route[j] = j < ROUTED_STEPS ? low[j] : static_cast<uint8_t>(j);
    return table;
}();

inline constexpr route_table FINE_ROUTES = [] {
    route_table table{};
    for (unsigned j = 0; j < SMALL_CLASS_COUNT; ++j) table.route[j] = static_cast<uint8_t>(j);
    return table;
}();

constexpr bool routes_cover_their_steps(const route_table& table) {
    for (unsigned j = 0; j < ROUTED_STEPS; ++j)
        if (small_block_bytes(table.route[j]) < 4 * (j + 1)) return false;
    return true;
}
static_assert(routes_cover_their_steps(COARSE_ROUTES) && routes_cover_their_steps(FINE_ROUTES));
static_assert(COARSE_ROUTES.route[2] == 3 && COARSE_ROUTES.route[8] == 11);

// Classes of 65 to 256 bytes: (n + 15) / 16 + 11, a shift and an add.
constexpr unsigned medium_small_class(uint64_t n) {
    return static_cast<unsigned>((n + 15) >> 4) + 11;
}
static_assert(medium_small_class(65) == 16 && medium_small_class(80) == 16);
static_assert(medium_small_class(241) == 27 && medium_small_class(256) == 27);

// calloc rounds its total to 16 bytes and has its own classes, never the routing: a zeroed
// block is at least 16 bytes unless the product wrapped to within 15 of zero (class 0).
struct calloc_classes {
    uint8_t small_class[SMALL_MAX / 16 + 1];
};

inline constexpr calloc_classes CALLOC_CLASS_TABLE = [] {
    calloc_classes table{};
    constexpr uint8_t low[5] = {0, 3, 7, 11, 15};
    for (unsigned r = 0; r <= SMALL_MAX / 16; ++r)
        table.small_class[r] = r < 5 ? low[r] : static_cast<uint8_t>(r + 11);
    return table;
}();
static_assert(CALLOC_CLASS_TABLE.small_class[5] == 16 && CALLOC_CLASS_TABLE.small_class[16] == 27);
static_assert([] {
    for (unsigned r = 1; r <= SMALL_MAX / 16; ++r)
        if (small_block_bytes(CALLOC_CLASS_TABLE.small_class[r]) != 16 * r) return false;
    return true;
}());

}  // namespace tarnheap
