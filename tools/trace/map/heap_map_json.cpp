#include "heap_map_json.h"

#include <algorithm>
#include <cstdio>

#include "bucket/bucket_release.h"
#include "bucket/commit_groups.h"
#include "bucket/run_length.h"
#include "state/heap_state.h"

namespace trace {
namespace {

using namespace tarnheap;

constexpr uint64_t CELLS_PER_CLASS = 200;
// Runs up to this many groups are marked in the group bitmap while they live.
constexpr uint64_t LONGEST_MARKED_RUN = RUN_LENGTH_TIERS[2].longest;

enum group_role : uint8_t { UNCLAIMED, WARM_UP, BUCKET, LARGE, CACHED, ROLE_COUNT };
constexpr const char* ROLE_NAMES[ROLE_COUNT] = {"unclaimed", "warm-up", "bucket", "large",
                                                "cached"};

uint8_t group_roles[GROUP_COUNT];
uint64_t cell_issued[CELLS_PER_CLASS];
uint64_t cell_stacked[CELLS_PER_CLASS];

unsigned long long number(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

bool class_committed(unsigned small_class) {
    return heap_state.init_state == INIT_READY &&
           heap_state.small_class[small_class].uncommitted_base == 0;
}

uint64_t cell_of(uint64_t block, uint64_t capacity) {
    return block * CELLS_PER_CLASS / capacity;
}

// The blocks the cells cover: up to the highest one issued, at least one per cell. Refills take
// the lowest free blocks, so this is where a segment's life is.
uint64_t cell_extent(const small_class_record& descriptor) {
    uint64_t word = (uint64_t{descriptor.capacity} + 63) / 64;
    while (word > 0 && descriptor.bitmap[word - 1] == 0) --word;
    uint64_t extent = word == 0 ? 0 : word * 64 - __builtin_clzll(descriptor.bitmap[word - 1]);
    return std::min<uint64_t>(std::max(extent, CELLS_PER_CLASS), descriptor.capacity);
}

// Blocks issued (in use or stacked) and stacked, per cell of the class's extent.
void count_cells(unsigned small_class, uint64_t extent) {
    const small_class_record& descriptor = heap_state.small_class[small_class];
    const small_class_head_record& head = heap_state.small_class_head[small_class];
    for (uint64_t cell = 0; cell < CELLS_PER_CLASS; ++cell)
        cell_issued[cell] = cell_stacked[cell] = 0;
    for (uint64_t word = 0; word * 64 < extent; ++word)
        for (uint64_t bits = descriptor.bitmap[word]; bits != 0; bits &= bits - 1)
            ++cell_issued[cell_of(word * 64 + __builtin_ctzll(bits), extent)];
    for (int slot = 0; slot < head.depth; ++slot) {
        uint64_t block =
            (uint64_t{head.segment_key} << SEGMENT_KEY_SHIFT) +
            (uint64_t{heap_state.free_index_stack[small_class][slot]} << BLOCK_OFFSET_SHIFT);
        ++cell_stacked[cell_of((block - descriptor.first_block) / descriptor.block_size, extent)];
    }
}

void print_small_class(unsigned small_class) {
    const small_class_record& descriptor = heap_state.small_class[small_class];
    uint64_t capacity = descriptor.capacity, issued = 0, stacked = 0;
    bool committed = class_committed(small_class);
    uint64_t extent = committed ? cell_extent(descriptor) : 0;
    if (committed) count_cells(small_class, extent);
    std::printf(
        "%s\n  {\"class\": %u, \"block_size\": %u, \"capacity\": %llu, \"committed\": %s, "
        "\"extent\": %llu, \"cells\": [",
        small_class == 0 ? "" : ",", small_class, descriptor.block_size, number(capacity),
        committed ? "true" : "false", number(extent));
    for (uint64_t cell = 0; committed && cell < CELLS_PER_CLASS; ++cell) {
        // Blocks b with cell_of(b) == cell.
        uint64_t blocks = ((cell + 1) * extent + CELLS_PER_CLASS - 1) / CELLS_PER_CLASS -
                          (cell * extent + CELLS_PER_CLASS - 1) / CELLS_PER_CLASS;
        std::printf("%s[%llu, %llu, %llu]", cell == 0 ? "" : ", ",
                    number(cell_issued[cell] - cell_stacked[cell]), number(cell_stacked[cell]),
                    number(blocks));
        issued += cell_issued[cell];
        stacked += cell_stacked[cell];
    }
    std::printf("], \"in_use\": %llu, \"stacked\": %llu, \"free\": %llu}", number(issued - stacked),
                number(stacked), number(capacity - issued));
}

bool bit_set(const uint8_t* bitmap, uint64_t bit) {
    return (bitmap[bit / 8] >> (bit % 8)) & 1;
}

void mark(uint64_t first, uint64_t groups, group_role role) {
    for (uint64_t group = first; group < first + groups && group < GROUP_COUNT; ++group)
        group_roles[group] = role;
}

bool in_use(uint64_t group) {
    return heap_state.group_descriptor[group].bucket.group_base ==
           heap_state.bucket_area_base + group * GROUP_BYTES;
}

uint64_t index_of(const group_descriptor_record* descriptor) {
    return static_cast<uint64_t>(descriptor - heap_state.group_descriptor);
}

void assign_roles(const live_ranges& live) {
    for (uint64_t group = 0; group < GROUP_COUNT; ++group)
        group_roles[group] = bit_set(heap_state.group_bitmap, group) ? WARM_UP : UNCLAIMED;
    if (heap_state.init_state != INIT_READY) return;
    for (uint64_t group = 1; group < GROUP_COUNT; ++group) {
        if (!in_use(group)) continue;
        const group_descriptor_record& descriptor = heap_state.group_descriptor[group];
        uint64_t base = descriptor.large.group_base;
        if (descriptor.bucket.unit_size != 0)
            group_roles[group] = BUCKET;
        else if (descriptor.large.run_groups <= LONGEST_MARKED_RUN ||
                 starts_within(live, base, base + GROUP_BYTES))
            mark(group, descriptor.large.run_groups, LARGE);
    }
    for (auto* first : {heap_state.short_runs_first, heap_state.long_runs_first})
        for (const group_descriptor_record* run = first; run != nullptr; run = run->cached.age_next)
            mark(index_of(run), run->cached.run_groups, CACHED);
}

uint64_t run_end(uint64_t group) {
    uint8_t role = group_roles[group];
    if (role == BUCKET) return group + 1;
    if (role == LARGE) return group + heap_state.group_descriptor[group].large.run_groups;
    if (role == CACHED) return group + heap_state.group_descriptor[group].cached.run_groups;
    uint64_t end = group;
    while (end < GROUP_COUNT && group_roles[end] == role) ++end;
    return end;
}

void print_group_run(uint64_t group, uint64_t end) {
    std::printf("%s\n   {\"first\": %llu, \"groups\": %llu, \"role\": \"%s\"",
                group == 0 ? "" : ",", number(group), number(end - group),
                ROLE_NAMES[group_roles[group]]);
    if (group_roles[group] == BUCKET) {
        const bucket_group_view& view = heap_state.group_descriptor[group].bucket;
        std::printf(
            ", \"class\": %u, \"unit_size\": %u, \"in_use\": %u, \"units\": %u, "
            "\"detached\": %u",
            view.class_index, view.unit_size, view.unit_count - view.free_units, view.unit_count,
            view.detached);
    }
    std::printf("}");
}

void print_group_list(const group_descriptor_record* first, bool by_age) {
    std::printf("[");
    for (const group_descriptor_record* run = first; run != nullptr;
         run = by_age ? run->cached.age_next : run->cached.length_next)
        std::printf("%s%llu", run == first ? "" : ", ", number(index_of(run)));
    std::printf("]");
}

}  // namespace

void print_small_classes() {
    std::printf(",\n \"small_classes\": [");
    for (unsigned small_class = 0; small_class < SMALL_CLASS_COUNT; ++small_class)
        print_small_class(small_class);
    std::printf("]");
}

void print_groups(const live_ranges& live) {
    assign_roles(live);
    uint64_t per_role[ROLE_COUNT] = {}, largest_free = 0;
    std::printf(",\n \"groups\": {\"count\": %u, \"high_water\": %u, \"runs\": [", GROUP_COUNT,
                heap_state.group_search_state.high_water);
    for (uint64_t group = 0, end; group < GROUP_COUNT; group = end) {
        end = run_end(group);
        per_role[group_roles[group]] += end - group;
        if (group_roles[group] == UNCLAIMED && end - group > largest_free)
            largest_free = end - group;
        print_group_run(group, end);
    }
    std::printf("],\n  \"roles\": {");
    for (unsigned role = 0; role < ROLE_COUNT; ++role)
        std::printf("%s\"%s\": %llu", role == 0 ? "" : ", ", ROLE_NAMES[role],
                    number(per_role[role]));
    std::printf("}, \"largest_free_run\": %llu}", number(largest_free));
}

void print_run_cache() {
    std::printf(",\n \"run_cache\": {\"cached_groups\": %llu, \"lengths\": [",
                number(heap_state.cached_groups));
    bool listed = false;
    for (unsigned entry = 0; entry < RUN_LENGTH_ENTRIES; ++entry) {
        const group_descriptor_record* head = heap_state.run_length_table[entry].cached_runs;
        if (head == nullptr) continue;
        std::printf("%s\n  {\"entry\": %u, \"groups\": %u, \"runs\": ", listed ? "," : "", entry,
                    head->cached.run_groups);
        print_group_list(head, false);
        std::printf("}");
        listed = true;
    }
    std::printf("],\n  \"short_age\": ");
    print_group_list(heap_state.short_runs_first, true);
    std::printf(", \"long_age\": ");
    print_group_list(heap_state.long_runs_first, true);
    std::printf("}");
}

void print_committed() {
    uint64_t small = 0, bucket = 0;
    for (unsigned small_class = 0; small_class < SMALL_CLASS_COUNT; ++small_class)
        if (class_committed(small_class)) small += SEGMENT_BYTES;
    for (unsigned chunk = 0; chunk < COMMIT_CHUNK_COUNT; ++chunk)
        if (heap_state.chunk_committed[chunk] != 0)
            bucket += chunk == LAST_COMMIT_CHUNK ? LAST_COMMIT_CHUNK_BYTES : COMMIT_CHUNK_BYTES;
    std::printf(
        ",\n \"committed\": {\"small\": %llu, \"bucket\": %llu, \"zeroed\": %llu, "
        "\"bootstrap\": %llu}",
        number(small), number(bucket),
        number(heap_state.zeroed_region_base != 0 ? ZEROED_REGION_BYTES : 0),
        number(heap_state.bootstrap_used));
}

}  // namespace trace
