// Where an address lies in the bucket area, from the address alone: its group, and whether that
// group's descriptor is in use there (a bucket group, or the first group of a large run).
#pragma once

#include <cstdint>

#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

struct group_position {
    group_descriptor_record* descriptor;  // null unless the group is in use
    uint32_t group;
    uint64_t offset;  // from the group's first byte
};

TARNHEAP_HOT group_position locate_in_use_group(uint64_t address) {
    // Below the bucket area the difference wraps to a huge value and fails the bound.
    uint64_t area_offset = (address & REGION_OFFSET_MASK) - BUCKET_AREA_OFFSET;
    if (area_offset >= BUCKET_AREA_BYTES) return {nullptr, 0, 0};
    auto group = static_cast<uint32_t>(area_offset / GROUP_BYTES);
    uint64_t group_start = group * GROUP_BYTES;
    group_descriptor_record& descriptor = heap_state.group_descriptor[group];
    // A cached run keeps list links where in-use groups keep their base: a second release of a
    // block whose run went to the cache fails here and goes on to the other areas.
    uint64_t base = descriptor.bucket.group_base;
    if ((base >> SEGMENT_KEY_SHIFT) != (address >> SEGMENT_KEY_SHIFT) ||
        base != heap_state.bucket_area_base + group_start)
        return {nullptr, group, 0};
    // The base is known now, so the offset needs no load of it.
    return {&descriptor, group, area_offset - group_start};
}

}  // namespace tarnheap
