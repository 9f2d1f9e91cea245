#include "state/heap_audit.h"

#include <algorithm>
#include <cstring>

#include "bucket/bucket_release.h"
#include "bucket/commit_groups.h"
#include "bucket/run_cache.h"
#include "bucket/run_length.h"
#include "runs/run_length_classes.h"
#include "small/small_class_table.h"
#include "state/heap_state.h"

namespace tarnheap {
namespace {

// Runs up to this many groups are claimed by finders that set their bits; longer ones are
// claimed at block level and leave their bits clear.
constexpr uint64_t LONGEST_BIT_RUN = RUN_LENGTH_TIERS[2].longest;

// The stack being checked for repeated entries; static, since the audit must not allocate.
constinit uint32_t stack_copy[FREE_INDEX_STACK_CAPACITY]{};

struct audit {
    audit_finding& finding;
    live_overlap_check overlaps_live;
    void* context;
    uint64_t groups_to_list;  // bucket groups that are not detached, counted by the group walk
};

bool broken(audit& a, const char* invariant, uint64_t at, uint64_t expected, uint64_t found) {
    a.finding = {invariant, at, expected, found};
    return false;
}

bool holds(audit& a, bool condition, const char* invariant, uint64_t at, uint64_t expected,
           uint64_t found) {
    return condition || broken(a, invariant, at, expected, found);
}

bool free_range(audit& a, uint64_t first, uint64_t end, const char* invariant) {
    if (a.overlaps_live == nullptr || !a.overlaps_live(a.context, first, end)) return true;
    return broken(a, invariant, first, 0, end - first);
}

bool bit_set(const uint8_t* bitmap, uint64_t bit) {
    return (bitmap[bit / 8] >> (bit % 8)) & 1;
}

uint64_t count_set_bits(const uint8_t* bitmap, uint64_t first, uint64_t end) {
    uint64_t count = 0;
    for (; first < end && first % 64 != 0; ++first) count += bit_set(bitmap, first);
    // Eight words at a time, skipping clear ones: a class's bitmap holds millions of bits.
    for (; first + 512 <= end; first += 512) {
        uint64_t words[8];
        std::memcpy(words, bitmap + first / 8, sizeof words);
        uint64_t any = 0;
        for (uint64_t word : words) any |= word;
        if (any == 0) continue;
        for (uint64_t word : words) count += static_cast<uint64_t>(__builtin_popcountll(word));
    }
    for (; first + 64 <= end; first += 64) {
        uint64_t word;
        std::memcpy(&word, bitmap + first / 8, sizeof word);
        count += static_cast<uint64_t>(__builtin_popcountll(word));
    }
    for (; first < end; ++first) count += bit_set(bitmap, first);
    return count;
}

bool all_set(const uint8_t* bitmap, uint64_t first, uint64_t end) {
    return count_set_bits(bitmap, first, end) == end - first;
}

// Offers every maximal stretch of clear bits below `bits` as bytes of `unit` each from `base`.
bool clear_stretches_free(audit& a, const uint8_t* bitmap, uint64_t bits, uint64_t base,
                          uint64_t unit, const char* invariant) {
    if (a.overlaps_live == nullptr) return true;
    uint64_t bit = 0;
    while (bit < bits) {
        if (bit_set(bitmap, bit)) {
            ++bit;
            continue;
        }
        uint64_t end = bit;
        while (end < bits && !bit_set(bitmap, end)) ++end;
        if (!free_range(a, base + bit * unit, base + end * unit, invariant)) return false;
        bit = end;
    }
    return true;
}

uint64_t group_base(uint64_t group) {
    return heap_state.bucket_area_base + group * GROUP_BYTES;
}

bool zero_bytes(uint64_t first, uint64_t end) {
    for (; first < end; first += 8) {
        uint64_t word;
        std::memcpy(&word, reinterpret_cast<const void*>(first), sizeof word);
        if (word != 0) return false;
    }
    return true;
}

bool in_use(uint64_t group) {
    return heap_state.group_descriptor[group].bucket.group_base == group_base(group);
}

// The index of a descriptor the lists point at, or GROUP_COUNT for a pointer that is none.
uint64_t descriptor_index(const group_descriptor_record* run) {
    uint64_t offset =
        reinterpret_cast<uint64_t>(run) - reinterpret_cast<uint64_t>(heap_state.group_descriptor);
    if (offset % sizeof *run != 0 || offset / sizeof *run >= GROUP_COUNT) return GROUP_COUNT;
    return offset / sizeof *run;
}

bool chunks_committed(uint64_t first, uint64_t groups) {
    for (uint64_t chunk = first / COMMIT_CHUNK_GROUPS;
         chunk <= (first + groups - 1) / COMMIT_CHUNK_GROUPS; ++chunk)
        if (heap_state.chunk_committed[chunk] == 0) return false;
    return true;
}

bool route_covers_its_step(unsigned step, unsigned route) {
    if (step >= ROUTED_STEPS) return route == step;
    return route < ROUTED_STEPS && small_block_bytes(route) >= 4 * (step + 1);
}

bool audit_stack(audit& a, unsigned small_class) {
    const small_class_head_record& head = heap_state.small_class_head[small_class];
    const small_class_record& descriptor = heap_state.small_class[small_class];
    const auto* bitmap = reinterpret_cast<const uint8_t*>(descriptor.bitmap);
    uint64_t end = descriptor.first_block + uint64_t{descriptor.capacity} * descriptor.block_size;
    for (int slot = 0; slot < head.depth; ++slot) {
        uint32_t entry = heap_state.free_index_stack[small_class][slot];
        uint64_t block = (uint64_t{head.segment_key} << SEGMENT_KEY_SHIFT) +
                         (uint64_t{entry} << BLOCK_OFFSET_SHIFT);
        uint64_t index = (block - descriptor.first_block) / descriptor.block_size;
        if (!holds(a,
                   block >= descriptor.first_block && block < end &&
                       (block - descriptor.first_block) % descriptor.block_size == 0,
                   "a stacked block is a block of its class", small_class, descriptor.first_block,
                   block) ||
            !holds(a, bit_set(bitmap, index), "a stacked block keeps its bit set", small_class, 1,
                   block) ||
            !free_range(a, block, block + descriptor.block_size,
                        "a live block is on its class's free-index stack"))
            return false;
        stack_copy[slot] = entry;
    }
    std::sort(stack_copy, stack_copy + head.depth);
    const uint32_t* repeated = std::adjacent_find(stack_copy, stack_copy + head.depth);
    return holds(a, repeated == stack_copy + head.depth, "a block is on its class's stack once",
                 small_class, 1, 2);
}

bool audit_committed_class(audit& a, unsigned small_class) {
    const small_class_record& descriptor = heap_state.small_class[small_class];
    const auto* bitmap = reinterpret_cast<const uint8_t*>(descriptor.bitmap);
    uint64_t bitmap_bits = (descriptor.first_block - 64 - reinterpret_cast<uint64_t>(bitmap)) * 8;
    uint64_t capacity = descriptor.capacity;
    uint64_t issued = count_set_bits(bitmap, 0, capacity);
    uint64_t cursor_bit = uint64_t{descriptor.cursor} * 64;
    return holds(a, count_set_bits(bitmap, capacity, bitmap_bits) == 0,
                 "no bit beyond a class's capacity is set", small_class, 0,
                 count_set_bits(bitmap, capacity, bitmap_bits)) &&
           holds(a, descriptor.remaining == static_cast<int64_t>(capacity - issued),
                 "remaining counts the clear bits of its class's bitmap", small_class,
                 capacity - issued, static_cast<uint64_t>(descriptor.remaining)) &&
           holds(a, cursor_bit <= capacity && all_set(bitmap, 0, cursor_bit),
                 "no clear bit lies in a word below its class's cursor", small_class, capacity,
                 cursor_bit) &&
           audit_stack(a, small_class);
}

bool audit_small_class(audit& a, unsigned small_class) {
    const small_class_head_record& head = heap_state.small_class_head[small_class];
    const small_class_record& descriptor = heap_state.small_class[small_class];
    uint64_t segment = region_base() + small_class * SEGMENT_BYTES;
    uint32_t bytes = SMALL_CLASS_TABLE.bytes[small_class];
    uint64_t end = descriptor.first_block + uint64_t{descriptor.capacity} * bytes;
    bool laid_out = descriptor.first_block % 64 == 0 && descriptor.first_block >= segment + 128 &&
                    end <= segment + SEGMENT_BYTES;
    if (!holds(a, descriptor.block_size == bytes && head.units * 4u == bytes,
               "a class's block size is its table's", small_class, bytes, descriptor.block_size) ||
        !holds(a, head.segment_key == region_base() >> SEGMENT_KEY_SHIFT,
               "every head holds the region's segment key", small_class,
               region_base() >> SEGMENT_KEY_SHIFT, head.segment_key) ||
        !holds(a, laid_out, "a class's blocks lie in its segment, after its bitmap", small_class,
               segment, descriptor.first_block) ||
        !holds(a, head.depth >= 0 && head.depth <= static_cast<int>(FREE_INDEX_STACK_CAPACITY),
               "a stack's depth is within its capacity", small_class, FREE_INDEX_STACK_CAPACITY,
               static_cast<uint64_t>(head.depth)) ||
        !holds(a, route_covers_its_step(small_class, head.route),
               "a size step routes to a class that holds it", small_class, small_class, head.route))
        return false;
    if (descriptor.uncommitted_base == 0) return audit_committed_class(a, small_class);
    return holds(a,
                 descriptor.uncommitted_base == segment && descriptor.cursor == 0 &&
                     head.depth == 0 &&
                     descriptor.remaining == static_cast<int64_t>(descriptor.capacity),
                 "a class whose segment is uncommitted has issued nothing", small_class,
                 descriptor.capacity, static_cast<uint64_t>(descriptor.remaining));
}

bool audit_small_classes(audit& a) {
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c)
        if (!audit_small_class(a, c)) return false;
    return true;
}

bool audit_bucket_group(audit& a, uint32_t group, const bucket_group_view& view) {
    unsigned bucket_class = view.class_index;
    uint64_t unit_size = view.unit_size;
    uint64_t units = std::min<uint64_t>(GROUP_BYTES / unit_size, UNIT_BITMAP_BITS);
    const auto* units_bitmap = reinterpret_cast<const uint8_t*>(view.unit_bitmap);
    uint64_t used = count_set_bits(units_bitmap, 0, units);
    bool counts_follow = view.run_groups == 1 && view.unit_count == units &&
                         view.size_reciprocal == (uint64_t{1} << 32) / unit_size;
    bool detached_when_full = view.detached == 0 || (view.detached == 1 && view.free_units == 0 &&
                                                     view.prev_group == 0 && view.next_group == 0);
    if (!holds(a,
               bucket_class < BUCKET_CLASS_COUNT &&
                   unit_size == heap_state.bucket_class_table[bucket_class].bucket_size,
               "a group's unit size is its class's", group, bucket_class, unit_size) ||
        !holds(a, counts_follow, "a group's counts follow from its unit size", group, units,
               view.unit_count) ||
        !holds(a, count_set_bits(units_bitmap, units, UNIT_BITMAP_BITS) == 0,
               "no unit beyond a group's unit count is in use", group, units, used) ||
        !holds(a, view.free_units == units - used, "free_units counts a group's clear units", group,
               units - used, view.free_units) ||
        !holds(a, bit_set(heap_state.group_bitmap, group),
               "a bucket group is claimed in the group bitmap", group, 1, 0) ||
        !holds(a, detached_when_full, "only a full group is detached, and it is off its list",
               group, 0, view.free_units) ||
        !clear_stretches_free(a, units_bitmap, units, view.group_base, unit_size,
                              "a live block lies in a free unit"))
        return false;
    if (view.detached == 0) ++a.groups_to_list;
    return true;
}

bool audit_large_run(audit& a, uint32_t group, const large_run_view& view) {
    uint64_t groups = view.run_groups;
    bool rounded =
        groups <= LONGEST_TABLE_RUN ? run_length_for(groups).groups == groups : groups % 512 == 0;
    if (!holds(a, group + groups <= GROUP_COUNT, "a large run lies inside the bucket area", group,
               GROUP_COUNT - group, groups) ||
        !holds(a, rounded, "a large run has a rounded length", group, 0, groups))
        return false;
    // The first descriptor of a run handed back at once keeps its view: only shorter runs are
    // known to be live.
    if (groups > LONGEST_BIT_RUN) return true;
    return holds(a, all_set(heap_state.group_bitmap, group, group + groups),
                 "a large run is claimed in the group bitmap", group, groups,
                 count_set_bits(heap_state.group_bitmap, group, group + groups)) &&
           holds(a, chunks_committed(group, groups), "a large run's chunks are committed", group, 1,
                 0);
}

bool audit_groups(audit& a) {
    // The list code reads and writes back descriptor 0 as the end of every list.
    auto none = reinterpret_cast<uint64_t>(&heap_state.group_descriptor[0]);
    if (!holds(a, zero_bytes(none, none + sizeof(group_descriptor_record)) && !in_use(0),
               "descriptor 0 stands for no group and stays zero", 0, 0, 1))
        return false;
    for (uint32_t group = 1; group < GROUP_COUNT; ++group) {
        if (!in_use(group)) continue;
        const group_descriptor_record& descriptor = heap_state.group_descriptor[group];
        if (descriptor.bucket.unit_size != 0) {
            if (!audit_bucket_group(a, group, descriptor.bucket) ||
                !holds(a, chunks_committed(group, 1), "a bucket group's chunk is committed", group,
                       1, 0))
                return false;
        } else if (descriptor.large.run_groups != 0) {
            if (!audit_large_run(a, group, descriptor.large)) return false;
        }
    }
    return true;
}

// Relies on audit_groups having counted the groups that must be listed.
bool audit_class_lists(audit& a) {
    uint64_t listed = 0;
    for (unsigned bucket_class = 0; bucket_class < BUCKET_CLASS_COUNT; ++bucket_class) {
        uint32_t previous = 0;
        for (uint32_t group = heap_state.bucket_class_table[bucket_class].group_index; group != 0;
             group = heap_state.group_descriptor[group].bucket.next_group) {
            if (!holds(a, group < GROUP_COUNT && listed < GROUP_COUNT, "a class list ends",
                       bucket_class, GROUP_COUNT, group))
                return false;
            const bucket_group_view& view = heap_state.group_descriptor[group].bucket;
            if (!holds(a, in_use(group) && view.unit_size != 0, "a listed group is a bucket group",
                       group, 1, 0) ||
                !holds(a, view.class_index == bucket_class,
                       "a listed group belongs to its list's class", group, bucket_class,
                       view.class_index) ||
                !holds(a, view.prev_group == previous, "class lists link both ways", group,
                       previous, view.prev_group) ||
                !holds(a, view.detached == 0, "a listed group is not detached", group, 0, 1))
                return false;
            previous = group;
            ++listed;
        }
    }
    return holds(a, listed == a.groups_to_list,
                 "every group that is not detached is on its class's list", 0, a.groups_to_list,
                 listed);
}

struct cache_tally {
    uint64_t groups;
    uint64_t runs;
};

bool audit_cached_run(audit& a, uint64_t index, bool on_long_list) {
    const cached_run_view& view = heap_state.group_descriptor[index].cached;
    uint64_t groups = view.run_groups;
    run_length_choice choice = run_length_for(groups);
    bool filed = groups >= 1 && groups <= LONGEST_TABLE_RUN && choice.groups == groups &&
                 view.length_list == &heap_state.run_length_table[choice.entry].cached_runs;
    if (!holds(a, view.first_group == index, "a cached run names its own first group", index, index,
               view.first_group) ||
        !holds(a, filed && index + groups <= GROUP_COUNT,
               "a cached run has a rounded length and is filed under its entry", index,
               choice.entry, groups) ||
        !holds(a, (groups >= LONG_RUN_MIN) == on_long_list,
               "a cached run is on the age list of its length", index, on_long_list, groups) ||
        !free_range(a, group_base(index), group_base(index) + groups * GROUP_BYTES,
                    "a live block lies in a cached run"))
        return false;
    if (groups > LONGEST_BIT_RUN) return true;
    return holds(a, all_set(heap_state.group_bitmap, index, index + groups),
                 "a cached run stays claimed in the group bitmap", index, groups,
                 count_set_bits(heap_state.group_bitmap, index, index + groups));
}

bool audit_age_list(audit& a, const group_descriptor_record* first,
                    const group_descriptor_record* last, bool on_long_list, cache_tally& tally) {
    const group_descriptor_record* previous = nullptr;
    for (const group_descriptor_record* run = first; run != nullptr; run = run->cached.age_next) {
        uint64_t index = descriptor_index(run);
        if (!holds(a, index < GROUP_COUNT && tally.runs < GROUP_COUNT,
                   "an age list holds descriptors and ends", tally.runs, GROUP_COUNT, index) ||
            !holds(a, run->cached.age_prev == previous, "age lists link both ways", index,
                   descriptor_index(previous), descriptor_index(run->cached.age_prev)) ||
            !audit_cached_run(a, index, on_long_list))
            return false;
        tally.groups += run->cached.run_groups;
        ++tally.runs;
        previous = run;
    }
    return holds(a, last == previous, "an age list's last end is its last run",
                 descriptor_index(previous), descriptor_index(previous), descriptor_index(last));
}

bool audit_length_lists(audit& a, uint64_t& runs) {
    for (unsigned entry = 0; entry < RUN_LENGTH_ENTRIES; ++entry) {
        group_descriptor_record* const& head = heap_state.run_length_table[entry].cached_runs;
        const group_descriptor_record* previous = nullptr;
        for (const group_descriptor_record* run = head; run != nullptr;
             run = run->cached.length_next) {
            uint64_t index = descriptor_index(run);
            if (!holds(a, index < GROUP_COUNT && runs < GROUP_COUNT,
                       "a length list holds descriptors and ends", entry, GROUP_COUNT, index) ||
                !holds(a, run->cached.length_prev == previous, "length lists link both ways", index,
                       descriptor_index(previous), descriptor_index(run->cached.length_prev)) ||
                !holds(a, run->cached.length_list == &head,
                       "a run on a length list points back at its entry", index, entry,
                       run->cached.run_groups))
                return false;
            ++runs;
            previous = run;
        }
    }
    return true;
}

bool audit_run_cache(audit& a) {
    cache_tally tally{};
    uint64_t listed_by_length = 0;
    if (!audit_age_list(a, heap_state.short_runs_first, heap_state.short_runs_last, false, tally) ||
        !audit_age_list(a, heap_state.long_runs_first, heap_state.long_runs_last, true, tally) ||
        !audit_length_lists(a, listed_by_length))
        return false;
    return holds(a, listed_by_length == tally.runs,
                 "every cached run is on one length list and one age list", 0, tally.runs,
                 listed_by_length) &&
           holds(a, heap_state.cached_groups == tally.groups, "cached_groups sums the cached runs",
                 0, tally.groups, heap_state.cached_groups);
}

// The search record of a bitmap against its bits: the set bits are exactly those of the counted
// runs that set bits, none lies below the cursor's reach or at the high-water mark and above,
// and the tail beyond the limit, which the finders read, stays zero.
bool audit_search_state(audit& a, const uint8_t* bitmap, uint64_t limit, uint64_t bytes,
                        const run_search_state& search) {
    uint64_t claimed = 0;
    for (unsigned length_class = 1; length_class <= RUN_CLASS_COUNT; ++length_class) {
        uint64_t length = run_class_length(length_class);
        uint32_t count = search.run_counts[length_class - 1];
        if (!holds(a, length != 0 || count == 0, "length classes of no length count nothing",
                   length_class, 0, count))
            return false;
        if (length <= LONGEST_BIT_RUN) claimed += count * length;
    }
    uint64_t set = count_set_bits(bitmap, 0, limit);
    uint64_t mark = std::min<uint64_t>(search.high_water, limit);
    return holds(a, set == claimed, "a bitmap's set bits are those of its counted runs", limit,
                 claimed, set) &&
           holds(a, count_set_bits(bitmap, limit, bytes * 8) == 0,
                 "a bitmap's tail beyond its limit stays zero", limit, 0,
                 count_set_bits(bitmap, limit, bytes * 8)) &&
           holds(a, search.cursor <= limit && all_set(bitmap, 0, search.cursor),
                 "no bit below the cursor is free", limit, search.cursor,
                 count_set_bits(bitmap, 0, std::min<uint64_t>(search.cursor, limit))) &&
           holds(a, count_set_bits(bitmap, mark, limit) == 0,
                 "no bit at or above the high-water mark is set", limit, 0,
                 count_set_bits(bitmap, mark, limit));
}

bool audit_group_bitmap(audit& a) {
    return audit_search_state(a, heap_state.group_bitmap, GROUP_COUNT, GROUP_BITMAP_BYTES,
                              heap_state.group_search_state);
}

bool audit_zeroed_region(audit& a) {
    uint64_t base = heap_state.zeroed_region_base;
    if (base == 0) return true;
    const uint8_t* bitmap = heap_state.zeroed_bitmap;
    if (!audit_search_state(a, bitmap, ZEROED_SLOTS, ZEROED_BITMAP_BYTES,
                            heap_state.zeroed_search_state) ||
        !clear_stretches_free(a, bitmap, ZEROED_SLOTS, base, uint64_t{1} << ZEROED_SLOT_SHIFT,
                              "a live block lies in a free slot of the zeroed region"))
        return false;
    // Blocks leave the region without being cleared: every free slot that was ever handed out
    // (the slots from the high-water mark on are fresh pages) must read as zero again.
    uint64_t handed_out =
        std::min<uint64_t>(heap_state.zeroed_search_state.high_water, ZEROED_SLOTS);
    for (uint64_t slot = 0; slot < handed_out; ++slot) {
        uint64_t first = base + (slot << ZEROED_SLOT_SHIFT);
        if (!bit_set(bitmap, slot) &&
            !holds(a, zero_bytes(first, first + (uint64_t{1} << ZEROED_SLOT_SHIFT)),
                   "a free slot of the zeroed region is zero", slot, 0, 1))
            return false;
    }
    return true;
}

// Before the heap is ready, or when it failed, every fast path must miss.
bool audit_idle_heap(audit& a) {
    for (unsigned c = 0; c < SMALL_CLASS_COUNT; ++c)
        if (!holds(a, heap_state.small_class_head[c].depth == 0,
                   "an idle heap has no stacked block", c, 0,
                   static_cast<uint64_t>(heap_state.small_class_head[c].depth)))
            return false;
    for (unsigned c = 0; c < BUCKET_CLASS_COUNT; ++c)
        if (!holds(a, heap_state.bucket_class_table[c].group_index == 0,
                   "an idle heap has no bucket group", c, 0,
                   heap_state.bucket_class_table[c].group_index))
            return false;
    return true;
}

using audit_step = bool (*)(audit&);

// In this order: the class lists are checked against the groups counted by the group walk.
constexpr audit_step READY_HEAP_AUDIT[] = {audit_small_classes, audit_groups,
                                           audit_class_lists,   audit_run_cache,
                                           audit_group_bitmap,  audit_zeroed_region};

}  // namespace

bool audit_heap(audit_finding& finding, live_overlap_check overlaps_live, void* context) {
    finding = {};
    audit a{finding, overlaps_live, context, 0};
    if (heap_state.init_state != INIT_READY) return audit_idle_heap(a);
    for (audit_step step : READY_HEAP_AUDIT)
        if (!step(a)) return false;
    return true;
}

}  // namespace tarnheap
