// The zeroed region: a separate 64 MiB reservation from which calloc serves blocks of 700 KiB
// to 1 MiB. Its 64 KiB slots are zero whenever they are free (release zeroes a block before it
// frees the slots), so blocks leave without being cleared.
#include "bucket/bucket_alloc.h"
#include "bucket/bucket_release.h"
#include "checked/hand_out_checks.h"
#include "platform/commit.h"
#include "platform/os_memory_ops.h"
#include "state/build_config.h"
#include "state/random.h"

namespace tarnheap {
namespace {

constexpr uint64_t ZEROED_REGION_HINT = 0x7ff000000000;
constexpr uint64_t ZEROED_REGION_ALIGNMENT = 0x10000;
static_assert(ZEROED_REGION_BYTES == ZEROED_SLOTS * ZEROED_SLOT_BYTES);
// Programs that make only a few such requests never pay for the region.
constexpr uint8_t ZEROED_WARM_USES = 200;
constexpr unsigned ONE_SLOT_ENTRY = 0;

int64_t claim_slots(unsigned entry) {
    return heap_state.run_length_table[entry].finder(heap_state.zeroed_bitmap, ZEROED_SLOTS,
                                                     &heap_state.zeroed_search_state);
}

bool make_zeroed_region() {
    uint64_t size = ZEROED_REGION_BYTES;
    uint64_t base = reserve_aligned(ZEROED_REGION_HINT, &size, ZEROED_REGION_ALIGNMENT);
    // The next qualifying request tries again.
    if (base == 0) return false;
    commit_range(base, size);
    heap_state.zeroed_region_base = base;
    // Slots claimed here are never released: the first blocks land at a random distance from
    // the region's start.
    uint32_t count = draw_random() % WARM_UP_SPAN + 1;
    for (uint32_t i = 0; i < count; ++i) claim_slots(ONE_SLOT_ENTRY);
    return true;
}

}  // namespace

void* zeroed_region_alloc(uint64_t total) {
    if (heap_state.zeroed_uses < ZEROED_WARM_USES) {
        ++heap_state.zeroed_uses;
        return nullptr;
    }
    if (heap_state.zeroed_region_base == 0 && !make_zeroed_region()) return nullptr;
    // 11 to 16 slots: each has its bit-run finder at the entry of that length.
    unsigned slots = static_cast<unsigned>((total + ZEROED_SLOT_BYTES - 1) >> ZEROED_SLOT_SHIFT);
    int64_t first = claim_slots(slots);
    if (first < 0) return nullptr;
    uint64_t block =
        heap_state.zeroed_region_base + (static_cast<uint64_t>(first) << ZEROED_SLOT_SHIFT);
    heap_state.zeroed_run_length[first] = slots;
    if (block == 0) return nullptr;
    if constexpr (CHECKED) check_zeroed_hand_out(block, slots);
    return reinterpret_cast<void*>(block);
}

}  // namespace tarnheap
