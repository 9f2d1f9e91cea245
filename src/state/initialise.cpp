#include "state/initialise.h"

#include <cstring>

#include "bucket/bucket_size_table.h"
#include "checked/hand_out_checks.h"
#include "platform/platform.h"
#include "platform/processor.h"
#include "runs/run_finder_table.h"
#include "small/small_class_table.h"
#include "state/heap_state.h"
#include "state/random.h"

namespace tarnheap {
namespace {

// Each segment starts with the random gap, then 64 empty bytes, the bitmap, 64 empty bytes and
// the blocks.
constexpr uint32_t SEGMENT_PAD = 64;

uint32_t bitmap_bytes_for(uint32_t capacity) {
    return ((capacity + 511) >> 3) & ~uint32_t{63};
}

void install_memory_ops() {
    heap_state.memory_ops_copy = os_memory_ops;
    heap_state.memory_ops_copy.context = &os_memory_params;
    heap_state.memory_ops = &heap_state.memory_ops_copy;
}

void install_run_finders() {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    for (unsigned slot = 0; slot < RUN_LENGTH_ENTRIES; ++slot)
        heap_state.run_length_table[slot].finder = table[slot].fixed;
    heap_state.generic_block_finder = table[GENERIC_SLOT].generic;
}

void lay_out_small_class(unsigned small_class, uint64_t region) {
    uint32_t block_size = SMALL_CLASS_TABLE.bytes[small_class];
    uint64_t segment = region + small_class * SEGMENT_BYTES;
    small_class_plan plan = plan_small_class(block_size, draw_random() % SMALL_GAP_STEPS);
    uint64_t bitmap = segment + plan.gap_bytes + SEGMENT_PAD;

    small_class_head_record& head = heap_state.small_class_head[small_class];
    head.segment_key = static_cast<uint32_t>(segment >> SEGMENT_KEY_SHIFT);
    head.units = static_cast<uint8_t>(block_size / 4);

    small_class_record& descriptor = heap_state.small_class[small_class];
    descriptor.block_size = block_size;
    descriptor.bitmap = reinterpret_cast<uint64_t*>(bitmap);
    descriptor.first_block = bitmap + plan.bitmap_bytes + SEGMENT_PAD;
    descriptor.capacity = plan.capacity;
    descriptor.remaining = static_cast<int32_t>(plan.capacity);
    // Only reserved so far: the first refill commits the segment, whose fresh pages read as
    // zero, so the bitmap needs no clearing.
    descriptor.uncommitted_base = segment;
}

void warm_up_groups() {
    uint32_t count = draw_random() % WARM_UP_SPAN + 1;
    run_finder one_bit = heap_state.run_length_table[0].finder;
    for (uint32_t i = 0; i < count; ++i)
        one_bit(heap_state.group_bitmap, GROUP_COUNT, &heap_state.group_search_state);
}

bool processor_is_supported() {
    char vendor[12];
    read_processor_vendor(vendor);
    return std::memcmp(vendor, REQUIRED_VENDOR, sizeof vendor) == 0;
}

}  // namespace

small_class_plan plan_small_class(uint32_t block_size, uint32_t r) {
    uint32_t gap = 64 * r;
    // 8 * (SEGMENT_BYTES - 64 - gap): r * 512 has no bits outside the mask, so XOR subtracts.
    uint32_t available_bits = (r * 512) ^ 0x3ffffe00;
    // A first estimate that ignores the pads and the bitmap's rounding, corrected one block at
    // a time; it is at most a few dozen blocks too high.
    uint32_t capacity = available_bits / (8 * block_size + 1);
    uint32_t bitmap = bitmap_bytes_for(capacity);
    while (uint64_t{block_size} * capacity + gap + SEGMENT_PAD + bitmap + SEGMENT_PAD >
           SEGMENT_BYTES)
        bitmap = bitmap_bytes_for(--capacity);
    return {capacity, bitmap, gap};
}

void heap_initialise() {
    // From here on, requests that re-enter the heap (from the loading of the C runtime, say)
    // are carved from the bootstrap arena.
    heap_state.init_state = INIT_RUNNING;
    // Before the processor check, so that a heap that cannot run still has its fallbacks.
    load_fallbacks();
    if (!processor_is_supported()) {
        heap_state.init_state = INIT_FAILED;
        return;
    }
    install_memory_ops();
    uint64_t size = REGION_BYTES;
    uint64_t region = reserve_aligned(REGION_HINT, &size, REGION_BYTES);
    if (region == 0) {
        heap_state.init_state = INIT_FAILED;
        return;
    }
    heap_state.rng_state = read_timestamp_counter() * RNG_MULTIPLIER + RNG_INCREMENT;
    install_run_finders();
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c) lay_out_small_class(c, region);
    for (unsigned c = 0; c < BUCKET_CLASS_COUNT; ++c)
        heap_state.bucket_class_table[c].bucket_size = BUCKET_SIZE_TABLE.bytes[c];
    for (unsigned j = 0; j < SMALL_CLASS_COUNT; ++j)
        heap_state.small_class_head[j].route = COARSE_ROUTES.route[j];
    heap_state.bucket_area_base = region + BUCKET_AREA_OFFSET;
    // Groups claimed here are never handed out: the first real group lands at a random index.
    warm_up_groups();
    if constexpr (CHECKED) start_checks();
    heap_state.init_state = INIT_READY;
}

}  // namespace tarnheap
