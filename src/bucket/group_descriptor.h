// The descriptor of one group of the bucket area, in its three roles.
#pragma once

#include <cstddef>
#include <cstdint>

#include "state/layout.h"

namespace tarnheap {

union group_descriptor_record;

// A group divided into equal units of one bucket class.
struct bucket_group_view {
    uint32_t run_groups;  // 1
    uint32_t prev_group;  // neighbours in the class list, 0 at the ends
    uint32_t next_group;
    uint32_t
        size_reciprocal;  // floor(2^32 / unit_size): offsets become unit indices without a division
    uint16_t unit_size;   // never 0 in this view
    uint16_t free_units;
    uint16_t unit_count;
    uint8_t detached;  // taken off the class list because it was full
    uint8_t class_index;
    uint64_t group_base;
    uint64_t unit_bitmap[UNIT_BITMAP_WORDS];
};

// The first group of a run holding one large block. Only these three fields are written; the
// zero unit_size is what tells release and resize that the block is large.
struct large_run_view {
    uint32_t run_groups;
    uint32_t unused_links[3];
    uint16_t unit_size;
    uint16_t unused_counts[3];
    uint64_t group_base;
};

// The first group of a free run waiting in the run cache. Its links lie where the in-use views
// keep group_base, so a second release of the same address fails the group_base test.
struct cached_run_view {
    uint32_t run_groups;
    uint32_t first_group;
    group_descriptor_record** length_list;
    group_descriptor_record* length_prev;
    group_descriptor_record* length_next;
    group_descriptor_record* age_prev;
    group_descriptor_record* age_next;
};

// Whole cache lines each: a release then reads the head of one line, and the unit bitmap's
// words 0 to 3 share it; a power-of-two stride would crowd the heads into a few cache sets.
union alignas(64) group_descriptor_record {
    bucket_group_view bucket;
    large_run_view large;
    cached_run_view cached;
};
static_assert(sizeof(group_descriptor_record) == 192);

static_assert(offsetof(bucket_group_view, unit_size) == offsetof(large_run_view, unit_size));
static_assert(offsetof(bucket_group_view, group_base) == offsetof(large_run_view, group_base));
static_assert(offsetof(cached_run_view, length_next) == offsetof(bucket_group_view, group_base));
static_assert(offsetof(cached_run_view, length_prev) == offsetof(bucket_group_view, unit_size));

}  // namespace tarnheap
