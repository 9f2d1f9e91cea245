// The address-space layout of the heap and the constants every area derives from it.
//
// One 8 GiB reservation, aligned to its own size, holds 28 small-class segments of 128 MiB and
// then the bucket area of fixed-size groups. Because of the alignment every address inside it
// has the same bits above bit 32, and its low 33 bits are its offset from the base: which area,
// class and group an address belongs to follows from the address alone.
#pragma once

#include <cstdint>

namespace tarnheap {

inline constexpr uint64_t REGION_BYTES = 0x200000000;
inline constexpr uint64_t REGION_HINT = 0x7f0000000000;
inline constexpr uint64_t REGION_OFFSET_MASK = REGION_BYTES - 1;
inline constexpr unsigned SEGMENT_KEY_SHIFT = 33;
static_assert(REGION_BYTES == uint64_t{1} << SEGMENT_KEY_SHIFT);

inline constexpr unsigned SMALL_CLASS_COUNT = 28;
inline constexpr uint64_t SEGMENT_BYTES = 0x8000000;
inline constexpr unsigned SEGMENT_SHIFT = 27;
inline constexpr uint64_t SMALL_AREA_BYTES = SMALL_CLASS_COUNT * SEGMENT_BYTES;
static_assert(SEGMENT_BYTES == uint64_t{1} << SEGMENT_SHIFT);
static_assert(SMALL_AREA_BYTES == 0xE0000000);

inline constexpr unsigned FREE_INDEX_STACK_CAPACITY = 2008;
inline constexpr unsigned REFILL_BATCH = 1016;
inline constexpr unsigned SMALL_MAX = 256;
// Stack entries count 4-byte units from the region base: 32 bits reach 16 GiB.
inline constexpr unsigned BLOCK_OFFSET_SHIFT = 2;
static_assert((uint64_t{1} << (32 + BLOCK_OFFSET_SHIFT)) >= REGION_BYTES);

inline constexpr uint64_t BUCKET_AREA_OFFSET = SMALL_AREA_BYTES;
inline constexpr unsigned GROUP_COUNT = 68385;
inline constexpr uint64_t GROUP_BYTES = 70656;
inline constexpr uint64_t BUCKET_AREA_BYTES = GROUP_COUNT * GROUP_BYTES;
static_assert(BUCKET_AREA_BYTES == 0x11FFF9400);
static_assert(BUCKET_AREA_OFFSET + BUCKET_AREA_BYTES <= REGION_BYTES);
inline constexpr unsigned UNIT_BITMAP_WORDS = 18;
inline constexpr unsigned UNIT_BITMAP_BITS = UNIT_BITMAP_WORDS * 64;
inline constexpr unsigned BUCKET_CLASS_COUNT = 67;
inline constexpr uint64_t BUCKET_LINEAR_MAX = 2688;
inline constexpr uint64_t BUCKET_MAX = 35328;
// Requests up to the size of the bucket area can be served by a run of groups.
inline constexpr uint64_t LARGE_MAX = 0x120000000;

inline constexpr uint64_t BOOTSTRAP_BYTES = 0x200000;
// Each bootstrap piece starts with a header holding its size, which resize reads back.
inline constexpr uint64_t BOOTSTRAP_HEADER = 16;

inline constexpr uint8_t INIT_NONE = 0;
inline constexpr uint8_t INIT_RUNNING = 1;
inline constexpr uint8_t INIT_READY = 2;
inline constexpr uint8_t INIT_FAILED = 3;

// Linear congruential generator of the layout randomisation; a draw is the high half of the
// new state.
inline constexpr uint64_t RNG_MULTIPLIER = 0x2ae89694e94fa775;
inline constexpr uint64_t RNG_INCREMENT = 0x52c995c7d84f8b9d;

inline constexpr char REQUIRED_VENDOR[] = "KestrelCores";

// The warm-ups claim 1 to WARM_UP_SPAN single units so that first real claims land at a random
// distance from the start of their bitmap.
inline constexpr unsigned WARM_UP_SPAN = 499;

}  // namespace tarnheap
