#include "checked/hand_out_checks.h"

#include <cstring>

#include "bucket/bucket_release.h"
#include "checked/fill_patterns.h"
#include "checked/misuse_report.h"
#include "checked/shadow.h"
#include "platform/stack_trace.h"

namespace tarnheap {
namespace {

uint64_t granule_address(uint64_t granule) {
    return heap_state.bucket_area_base + (granule << GRANULE_SHIFT);
}

// Every granule of [first, end) that was marked as filled must still hold the fill; the marks
// go, whatever the block's role was when they were made. Marked granules come in runs, each
// compared in one go.
void check_filled_granules(const checked_block& block, uint64_t first, uint64_t end) {
    for (uint64_t run = next_filled_granule(first, end); run < end;) {
        uint64_t run_end = next_unfilled_granule(run, end);
        uint64_t at = granule_address(run);
        uint64_t bytes = (run_end - run) << GRANULE_SHIFT;
        uint64_t changed = first_changed_byte(at, bytes, RELEASED_BYTE);
        if (changed < bytes) stop_for_write(WRITE_AFTER_RELEASE, block, at - block.start + changed);
        run = run_end < end ? next_filled_granule(run_end, end) : end;
    }
    clear_filled_granules(first, end);
}

// The bytes asked for, in the record the block's area keeps.
void set_requested(const checked_block& block, uint64_t requested) {
    switch (block.area) {
        case block_area::small:
            shadow_write<small_entry>(small_entry_offset(block.class_index, block.group)) =
                static_cast<small_entry>(SMALL_HANDED_OUT | requested);
            return;
        case block_area::unit:
            shadow_write<uint16_t>(unit_request_offset(granule_of(block.start))) =
                static_cast<uint16_t>(requested);
            return;
        case block_area::large:
            shadow_write<large_block_record>(large_block_offset(block.group)).requested = requested;
            return;
        case block_area::zeroed:
            shadow_write<uint32_t>(zeroed_slot_offset(block.group)) =
                ZEROED_HANDED_OUT | static_cast<uint32_t>(requested);
            return;
        case block_area::foreign:
        case block_area::unused:
        case block_area::bootstrap:
            return;
    }
}

// Blocks of the heap's areas that the program has now: not the C runtime's, nor bootstrap
// pieces, which are never reused.
bool recorded_area(const checked_block& block) {
    return block.problem == nullptr && block.area != block_area::foreign &&
           block.area != block_area::bootstrap;
}

}  // namespace

void check_small_hand_out(uint64_t block) {
    auto small_class = static_cast<unsigned>((block & REGION_OFFSET_MASK) >> SEGMENT_SHIFT);
    small_entry& entry = shadow_write<small_entry>(
        small_entry_offset(small_class, small_block_index(small_class, block)));
    if ((entry & SMALL_RELEASED) != 0) {
        uint32_t bytes = heap_state.small_class[small_class].block_size;
        uint64_t changed = first_changed_byte(block, bytes, RELEASED_BYTE);
        if (changed < bytes) stop_for_write(WRITE_AFTER_RELEASE, find_block(block), changed);
    }
    entry = SMALL_HANDED_OUT;
}

void check_unit_hand_out(const bucket_group_view& group, uint64_t block) {
    checked_block described = block_record(block_area::unit, block, block, group.unit_size);
    described.class_index = group.class_index;
    described.group = static_cast<uint32_t>(granule_of(group.group_base) / GRANULES_PER_GROUP);
    uint64_t first = granule_of(block);
    check_filled_granules(described, first, first + group.unit_size / GRANULE_BYTES);
}

void check_large_hand_out(uint32_t group, uint64_t groups, uint64_t block) {
    uint64_t base = heap_state.bucket_area_base + group * GROUP_BYTES;
    uint64_t end = base + groups * GROUP_BYTES;
    checked_block described = block_record(block_area::large, block, block, end - block);
    described.group = group;
    described.groups = static_cast<uint32_t>(groups);
    check_filled_granules(described, granule_of(block), granule_of(end));
    // Marks left before the block's start by earlier roles of the run's first group go too.
    if (block > base) clear_filled_granules(granule_of(base), granule_of(block));
    shadow_write<large_block_record>(large_block_offset(group)) = {block, 0};
}

void check_zeroed_hand_out(uint64_t block, uint32_t slots) {
    uint64_t bytes = uint64_t{slots} << ZEROED_SLOT_SHIFT;
    uint64_t slot = (block - heap_state.zeroed_region_base) >> ZEROED_SLOT_SHIFT;
    uint32_t& record = shadow_write<uint32_t>(zeroed_slot_offset(slot));
    uint64_t changed = first_changed_byte(block, bytes, 0);
    if (changed < bytes) {
        checked_block described = block_record(block_area::zeroed, block, block, bytes);
        described.group = static_cast<uint32_t>(slot);
        described.groups = slots;
        if ((record & ZEROED_RELEASED) != 0) described.requested = record & ZEROED_REQUESTED;
        stop_for_write(WRITE_AFTER_RELEASE, described, changed);
    }
    record = ZEROED_HANDED_OUT;
}

void record_hand_out(void* block, uint64_t requested) {
    checked_block handed_out = find_block(reinterpret_cast<uint64_t>(block));
    if (!recorded_area(handed_out)) return;
    if (requested > handed_out.usable) requested = handed_out.usable;
    set_requested(handed_out, requested);
    std::memset(reinterpret_cast<void*>(handed_out.start + requested), GUARD_BYTE,
                bytes_checked(handed_out.usable - requested));
}

void widen_to_usable_size(uint64_t address) {
    checked_block block = find_block(address);
    if (recorded_area(block)) set_requested(block, block.usable);
}

void start_checks() {
    start_shadow();
    prepare_return_address_capture();
}

}  // namespace tarnheap
