#include "checked/block_lookup.h"

#include <cstring>

#include "bucket/bucket_release.h"
#include "bucket/group_position.h"
#include "checked/misuse_report.h"
#include "checked/shadow.h"

namespace tarnheap {
namespace {

checked_block unused(uint64_t address, unused_place place, uint32_t number) {
    checked_block block = block_record(block_area::unused, address, address, 0);
    block.place = place;
    block.problem = NOT_HEAP_BLOCK;
    block.class_index = number;
    block.group = number;
    return block;
}

checked_block find_small(uint64_t address, unsigned small_class) {
    const small_class_record& descriptor = heap_state.small_class[small_class];
    uint64_t offset = address - descriptor.first_block;
    if (address < descriptor.first_block ||
        offset >= uint64_t{descriptor.capacity} * descriptor.block_size)
        return unused(address, unused_place::small_segment, small_class);
    uint64_t index = small_block_index(small_class, address);
    checked_block block =
        block_record(block_area::small, address,
                     descriptor.first_block + index * descriptor.block_size, descriptor.block_size);
    block.class_index = small_class;
    block.group = static_cast<uint32_t>(index);
    small_entry entry = shadow_read<small_entry>(small_entry_offset(small_class, index));
    if (entry != 0) block.requested = entry & SMALL_REQUESTED;
    if (block.problem == nullptr && (entry & SMALL_HANDED_OUT) == 0)
        block.problem = entry != 0 ? DOUBLE_RELEASE : NOT_HEAP_BLOCK;
    return block;
}

bool unit_handed_out(const bucket_group_view& view, uint64_t unit) {
    return (view.unit_bitmap[unit / 64] >> (unit % 64)) & 1;
}

// A block that is not handed out: released when its memory still holds the fill, else never a
// block of the heap.
void not_handed_out(checked_block& block) {
    if (block.problem != nullptr) return;
    bool released = granule_filled(granule_of(block.start));
    block.problem = released ? DOUBLE_RELEASE : NOT_HEAP_BLOCK;
}

checked_block find_unit(uint64_t address, const group_position& position) {
    const bucket_group_view& view = position.descriptor->bucket;
    uint64_t unit = position.offset / view.unit_size;
    if (unit >= view.unit_count) return unused(address, unused_place::bucket_group, position.group);
    checked_block block = block_record(block_area::unit, address,
                                       view.group_base + unit * view.unit_size, view.unit_size);
    block.class_index = view.class_index;
    block.group = position.group;
    block.requested = shadow_read<uint16_t>(unit_request_offset(granule_of(block.start)));
    if (!unit_handed_out(view, unit)) not_handed_out(block);
    return block;
}

checked_block large_block_at(uint64_t address, uint32_t group, uint32_t groups) {
    large_block_record record = shadow_read<large_block_record>(large_block_offset(group));
    uint64_t end = heap_state.bucket_area_base + (group + uint64_t{groups}) * GROUP_BYTES;
    checked_block block =
        block_record(block_area::large, address, record.start, end - record.start);
    block.group = group;
    block.groups = groups;
    block.requested = record.requested;
    return block;
}

bool group_in_use(uint32_t group) {
    return heap_state.group_descriptor[group].bucket.group_base ==
           heap_state.bucket_area_base + group * GROUP_BYTES;
}

// A second release of a block whose memory went back to the bucket area: a large block, or a
// unit of a group that has been emptied since.
checked_block released_in_free_group(uint64_t address, uint32_t group) {
    large_block_record record = shadow_read<large_block_record>(large_block_offset(group));
    bool large = record.start == address;
    checked_block block =
        block_record(large ? block_area::large : block_area::unit, address, address, 0);
    block.group = group;
    block.requested =
        large ? record.requested : shadow_read<uint16_t>(unit_request_offset(granule_of(address)));
    block.problem = DOUBLE_RELEASE;
    return block;
}

// An address in a group whose descriptor is not in use: inside a later group of a live large
// block, or in memory that a released block left.
checked_block find_in_free_group(uint64_t address, uint32_t group) {
    for (uint32_t first = group; first-- > 0;) {
        if (!group_in_use(first)) continue;
        const large_run_view& run = heap_state.group_descriptor[first].large;
        if (run.unit_size == 0 && first + uint64_t{run.run_groups} > group)
            return large_block_at(address, first, run.run_groups);
        break;
    }
    if (address % GRANULE_BYTES != 0 || !granule_filled(granule_of(address)))
        return unused(address, unused_place::bucket_group, group);
    return released_in_free_group(address, group);
}

checked_block find_in_bucket_area(uint64_t address) {
    group_position position = locate_in_use_group(address);
    if (position.descriptor == nullptr) return find_in_free_group(address, position.group);
    if (position.descriptor->bucket.unit_size != 0) return find_unit(address, position);
    uint32_t groups = position.descriptor->large.run_groups;
    if (groups == 0) return unused(address, unused_place::bucket_group, position.group);
    checked_block block = large_block_at(address, position.group, groups);
    if (address < block.start) return unused(address, unused_place::bucket_group, position.group);
    return block;
}

uint32_t zeroed_slot_record(uint64_t slot) {
    return shadow_read<uint32_t>(zeroed_slot_offset(slot));
}

checked_block zeroed_block_at(uint64_t address, uint64_t slot) {
    uint32_t slots = heap_state.zeroed_run_length[slot];
    uint64_t start = heap_state.zeroed_region_base + (slot << ZEROED_SLOT_SHIFT);
    checked_block block =
        block_record(block_area::zeroed, address, start, slots * ZEROED_SLOT_BYTES);
    uint32_t record = zeroed_slot_record(slot);
    if (record != 0) block.requested = record & ZEROED_REQUESTED;
    block.group = static_cast<uint32_t>(slot);
    block.groups = slots;
    return block;
}

checked_block find_in_zeroed_region(uint64_t address, uint64_t offset) {
    uint64_t slot = offset >> ZEROED_SLOT_SHIFT;
    // The block handed out that covers the slot, starting at it or before it.
    for (uint64_t first = slot + 1; first > 0; --first) {
        if ((zeroed_slot_record(first - 1) & ZEROED_HANDED_OUT) == 0) continue;
        if (first - 1 + heap_state.zeroed_run_length[first - 1] > slot)
            return zeroed_block_at(address, first - 1);
        break;
    }
    if (offset % ZEROED_SLOT_BYTES != 0 || (zeroed_slot_record(slot) & ZEROED_RELEASED) == 0)
        return unused(address, unused_place::zeroed_region, static_cast<uint32_t>(slot));
    checked_block block = zeroed_block_at(address, slot);
    block.problem = DOUBLE_RELEASE;
    return block;
}

// Pieces lie back to back from the arena's start, each a header holding its size and then the
// block.
checked_block find_in_bootstrap_arena(uint64_t address) {
    uint64_t arena = reinterpret_cast<uint64_t>(heap_state.bootstrap_arena);
    for (uint64_t at = 0; at < heap_state.bootstrap_used;) {
        uint64_t piece;
        std::memcpy(&piece, heap_state.bootstrap_arena + at, sizeof piece);
        if (address < arena + at + piece) {
            uint64_t start = arena + at + BOOTSTRAP_HEADER;
            checked_block block =
                block_record(block_area::bootstrap, address, start, piece - BOOTSTRAP_HEADER);
            if (block.problem == nullptr && bootstrap_piece_released(start))
                block.problem = DOUBLE_RELEASE;
            return block;
        }
        at += piece;
    }
    return unused(address, unused_place::bootstrap_arena, 0);
}

checked_block find_in_region(uint64_t address) {
    uint64_t offset = address & REGION_OFFSET_MASK;
    if (offset < SMALL_AREA_BYTES)
        return find_small(address, static_cast<unsigned>(offset >> SEGMENT_SHIFT));
    if (offset - BUCKET_AREA_OFFSET < BUCKET_AREA_BYTES) return find_in_bucket_area(address);
    return unused(address, unused_place::region_end, 0);
}

}  // namespace

checked_block block_record(block_area area, uint64_t address, uint64_t start, uint64_t usable) {
    checked_block block{};
    block.area = area;
    block.address = address;
    block.start = start;
    block.usable = usable;
    block.requested = UNKNOWN_REQUEST;
    block.class_index = UNKNOWN_CLASS;
    if (start != address) block.problem = NOT_BLOCK_START;
    return block;
}

checked_block find_block(uint64_t address) {
    if (heap_state.init_state == INIT_READY) {
        if ((address & ~REGION_OFFSET_MASK) == region_base()) return find_in_region(address);
        uint64_t zeroed_offset;
        if (in_zeroed_region(address, &zeroed_offset))
            return find_in_zeroed_region(address, zeroed_offset);
    }
    if (in_bootstrap_arena(address)) return find_in_bootstrap_arena(address);
    if (address - reinterpret_cast<uint64_t>(&heap_state) < sizeof heap_state)
        return unused(address, unused_place::heap_records, 0);
    checked_block block{};
    block.area = block_area::foreign;
    block.address = address;
    return block;
}

}  // namespace tarnheap
