#include "checked/release_checks.h"

#include <cstring>

#include "checked/fill_patterns.h"
#include "checked/misuse_report.h"
#include "checked/shadow.h"

namespace tarnheap {
namespace {

void fill(uint64_t start, uint64_t bytes) {
    std::memset(reinterpret_cast<void*>(start), RELEASED_BYTE, bytes);
}

void fill_granules(uint64_t start, uint64_t bytes) {
    fill(start, bytes);
    mark_filled_granules(granule_of(start), granule_of(start + bytes));
}

}  // namespace

checked_block check_release(uint64_t address) {
    checked_block block = find_block(address);
    if (block.area == block_area::foreign) return block;
    if (block.problem != nullptr) stop_for_address(block);
    // Bootstrap pieces keep no record of the bytes asked for.
    if (block.requested == UNKNOWN_REQUEST) return block;
    uint64_t guarded = block.start + block.requested;
    uint64_t bytes = bytes_checked(block.usable - block.requested);
    uint64_t changed = first_changed_byte(guarded, bytes, GUARD_BYTE);
    if (changed < bytes) stop_for_write(WRITE_PAST_END, block, block.requested + changed);
    return block;
}

void record_release(const checked_block& block) {
    switch (block.area) {
        case block_area::small:
            fill(block.start, block.usable);
            shadow_write<small_entry>(small_entry_offset(block.class_index, block.group)) =
                static_cast<small_entry>(SMALL_RELEASED | block.requested);
            return;
        case block_area::unit:
            fill_granules(block.start, block.usable);
            return;
        case block_area::large:
            fill_granules(block.start, bytes_checked(block.usable));
            return;
        case block_area::zeroed:
            // Its release clears it: the region's free slots are zero.
            shadow_write<uint32_t>(zeroed_slot_offset(block.group)) =
                ZEROED_RELEASED | static_cast<uint32_t>(block.requested);
            return;
        case block_area::bootstrap:
            mark_bootstrap_piece_released(block.start);
            return;
        case block_area::foreign:
        case block_area::unused:
            return;
    }
}

}  // namespace tarnheap
