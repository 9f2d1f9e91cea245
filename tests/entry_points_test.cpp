// The entry points request by request: the class, group or run that serves each size, the order
// in which blocks come back, failed resizes, the bootstrap arena, the answers of mallopt, runs
// claimed at block level, exhaustion of the bucket area, its lazy commit and calloc's zeroed
// region, all read from heap_state and compared with the figures of support/figures.h. On
// Linux runs of gigabytes cost nothing as long as their blocks are not written.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "bucket/commit_groups.h"
#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

uint32_t group_index(const void* block) {
    return uint32_t((reinterpret_cast<uint64_t>(block) - heap_state.bucket_area_base) /
                    GROUP_BYTES);
}

const group_descriptor_record& group_of(const void* block) {
    return heap_state.group_descriptor[group_index(block)];
}

enum class entry : uint8_t { malloc, fine_malloc, calloc };
constexpr const char* ENTRY_NAMES[] = {"malloc", "fine_malloc", "calloc"};
constexpr const char* AREA_NAMES[] = {"class", "bucket", "run", "run"};

struct request_case {
    entry call;
    uint64_t count, size;  // malloc takes `size` alone
    area where;
    unsigned number;  // small class, bucket class, or run-length entry (0: uncached)
    uint64_t usable;  // block or unit bytes; groups of a run
};

class request : public fresh_heap, public ::testing::WithParamInterface<request_case> {};

// Each block is the lowest its class, group or run offers, and the same comes back after a
// release: from the class's stack, or from the run cache by its rounded length.
TEST_P(request, is_served_by_its_class_and_served_again_after_release) {
    const request_case& c = GetParam();
    start_heap();
    if (c.call == entry::fine_malloc) tarnheap_mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    auto ask = [&c] {
        return c.call == entry::calloc ? tarnheap_calloc(c.count, c.size) : tarnheap_malloc(c.size);
    };
    void* block = ask();
    placement p = place(block);
    ASSERT_EQ(p.where, c.where);
    if (c.where == area::small) {
        EXPECT_EQ(p.small_class, c.number);
        EXPECT_EQ(p.usable, c.usable);
        EXPECT_EQ(reinterpret_cast<uint64_t>(block), heap_state.small_class[c.number].first_block);
    } else if (c.where == area::bucket) {
        const bucket_group_view& group = group_of(block).bucket;
        EXPECT_EQ(group.class_index, c.number);
        EXPECT_EQ(p.usable, c.usable);
        EXPECT_EQ(reinterpret_cast<uint64_t>(block), group.group_base);
    } else {
        EXPECT_EQ(group_of(block).large.run_groups, c.usable);
    }
    tarnheap_free(block);
    if (c.where == area::run || c.where == area::huge_run) {
        const group_descriptor_record& group = group_of(block);
        EXPECT_EQ(heap_state.run_length_table[c.number].cached_runs, c.number ? &group : nullptr);
        EXPECT_EQ(heap_state.cached_groups, c.number ? c.usable : 0);
        EXPECT_EQ(&group_of(ask()), &group);
    } else {
        EXPECT_EQ(ask(), block);
    }
}

constexpr entry MALLOC = entry::malloc, FINE = entry::fine_malloc, CALLOC = entry::calloc;
constexpr area SMALL = area::small, BUCKET = area::bucket, RUN = area::run, HUGE = area::huge_run;
constexpr uint64_t HALF_RANGE = uint64_t{1} << 63;
// Boundaries of the areas and finder tiers, and calloc's wrapping product (the stress model
// checks the class of random sizes in every area below block-level runs).
constexpr request_case REQUESTS[] = {{MALLOC, 1, 1, SMALL, 0, 4},
                                     {MALLOC, 1, 256, SMALL, 27, 256},
                                     {FINE, 1, 41, SMALL, 10, 44},
                                     {CALLOC, 3, 3, SMALL, 3, 16},
                                     {CALLOC, HALF_RANGE, 2, SMALL, 0, 4},
                                     {CALLOC, 3, 100, BUCKET, 5, 320},
                                     {MALLOC, 1, 2688, BUCKET, 42, 2688},
                                     {MALLOC, 1, 2689, BUCKET, 43, 2816},
                                     {MALLOC, 1, 35328, BUCKET, 66, 35328},
                                     {MALLOC, 1, 35329, RUN, 1, 1},
                                     {MALLOC, 1, 4451328, RUN, 63, 63},
                                     {MALLOC, 1, 4451329, RUN, 72, 64},
                                     {MALLOC, 1, 284884992, RUN, 191, 4032},
                                     {MALLOC, 1, 284884993, HUGE, 200, 4096},
                                     {MALLOC, 1, 2315255808, HUGE, 256, 32768},
                                     {MALLOC, 1, 2315255809, HUGE, 0, 33280}};
INSTANTIATE_TEST_SUITE_P(sizes, request, ::testing::ValuesIn(REQUESTS), [](const auto& info) {
    const request_case& c = info.param;
    std::string size = c.call != entry::calloc ? ""
                       : c.count > 1000        ? "wrapped_"
                                               : std::to_string(c.count) + "x";
    return std::string(ENTRY_NAMES[int(c.call)]) + "_" + size + std::to_string(c.size) + "_" +
           AREA_NAMES[int(c.where)] + "_" + std::to_string(c.number);
});

class entry_points : public fresh_heap {};

TEST_F(entry_points, refuse_requests_for_nothing_with_enomem_before_and_after_start) {
    for (int round = 0; round < 2; ++round) {
        for (void* (*ask)() :
             {+[] { return tarnheap_malloc(0); }, +[] { return tarnheap_calloc(0, 8); },
              +[] { return tarnheap_calloc(8, 0); },
              +[] { return tarnheap_realloc(nullptr, 0); }}) {
            errno = 0;
            EXPECT_EQ(ask(), nullptr);
            EXPECT_EQ(errno, ENOMEM);
        }
        tarnheap_free(nullptr);
        tarnheap_free(tarnheap_malloc(1));
    }
}

// A refill commits the segment once and hands out ascending blocks; releases stack up last in,
// first out, until a push onto a full stack (by free or by realloc's move) flushes it first.
TEST_F(entry_points, a_small_class_refills_in_order_and_flushes_a_full_stack) {
    static int segment_commits;
    segment_commits = 0;
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        segment_commits += type == MEMORY_COMMIT && size == SEGMENT_BYTES;
        return platform_virtual_alloc(at, size, type, protect);
    };
    std::vector<char*> blocks;
    for (int i = 0; i < 3 * REFILL; ++i) blocks.push_back(static_cast<char*>(tarnheap_malloc(100)));
    for (size_t i = 1; i < blocks.size(); ++i) ASSERT_EQ(blocks[i] - blocks[i - 1], 112) << i;
    const small_class_head_record& head = heap_state.small_class_head[18];
    const small_class_record& descriptor = heap_state.small_class[18];
    EXPECT_EQ(segment_commits, 1);
    EXPECT_EQ(descriptor.uncommitted_base, 0u);
    EXPECT_EQ(reinterpret_cast<uint64_t>(blocks[0]), descriptor.first_block);
    EXPECT_EQ(int(descriptor.capacity) - descriptor.remaining, 3 * REFILL);
    EXPECT_EQ(head.depth, 0);
    tarnheap_free(blocks[10]);
    tarnheap_free(blocks[20]);
    EXPECT_EQ(tarnheap_malloc(97), blocks[20]);
    EXPECT_EQ(tarnheap_malloc(112), blocks[10]);

    int32_t remaining = descriptor.remaining;
    for (int i = 0; i < STACK_CAPACITY; ++i) tarnheap_free(blocks[i + 5]);
    EXPECT_EQ(head.depth, STACK_CAPACITY);
    EXPECT_EQ(descriptor.remaining, remaining);
    void* moved = tarnheap_realloc(blocks[0], 113);
    EXPECT_EQ(place(moved).small_class, 19u);
    EXPECT_EQ(head.depth, 1);
    EXPECT_EQ(descriptor.remaining, remaining + STACK_CAPACITY);
    EXPECT_EQ(descriptor.cursor, 0u);
    EXPECT_EQ(tarnheap_malloc(100), blocks[0]);
    EXPECT_EQ(tarnheap_malloc(100), blocks[5]);  // back from the bitmap, lowest first
    // Blocks 6 to 1020 came back onto the stack with the refill; 2013 and above are still out.
    for (int i = 2013; head.depth < STACK_CAPACITY; ++i) tarnheap_free(blocks[i]);
    tarnheap_free(blocks[3047]);
    EXPECT_EQ(head.depth, 1);
}

// Units go out lowest first; a full group leaves its class's list when a request finds it full
// and comes back at the head with its next release; an emptied group waits in the run cache,
// still claimed, and serves the next class that needs a group.
TEST_F(entry_points, a_bucket_group_leaves_and_rejoins_its_list_and_passes_through_the_cache) {
    std::vector<char*> units;
    for (int i = 0; i < 23; ++i) units.push_back(static_cast<char*>(tarnheap_malloc(3000)));
    const bucket_group_view& full = group_of(units[0]).bucket;
    for (int i = 0; i < 23; ++i) EXPECT_EQ(units[i], units[0] + 3072 * i) << i;
    EXPECT_EQ(full.unit_count, 23);
    tarnheap_free(units[5]);
    EXPECT_EQ(tarnheap_malloc(3072), units[5]);
    void* other = tarnheap_malloc(3000);
    const bucket_group_view& fresh = group_of(other).bucket;
    uint32_t full_index = group_index(units[0]), fresh_index = group_index(other);
    EXPECT_EQ(full.detached, 1);
    EXPECT_EQ(full.next_group, 0u);
    EXPECT_EQ(heap_state.bucket_class_table[45].group_index, fresh_index);
    tarnheap_free(units[7]);
    EXPECT_EQ(full.detached, 0);
    EXPECT_EQ(heap_state.bucket_class_table[45].group_index, full_index);
    EXPECT_EQ(full.next_group, fresh_index);
    EXPECT_EQ(fresh.prev_group, full_index);
    EXPECT_EQ(tarnheap_malloc(3000), units[7]);

    tarnheap_free(other);
    EXPECT_EQ(heap_state.run_length_table[1].cached_runs, &group_of(other));
    EXPECT_EQ(heap_state.cached_groups, 1u);
    EXPECT_TRUE((heap_state.group_bitmap[fresh_index / 8] >> (fresh_index % 8)) & 1);
    EXPECT_EQ(tarnheap_malloc(4992), other);
    EXPECT_EQ(fresh.class_index, 54);
    EXPECT_EQ(fresh.unit_count, 14);
    EXPECT_EQ(heap_state.cached_groups, 0u);
}

// realloc to 0 frees the block and fails; a move that fails leaves the block where it was
// (which sizes stay and which move the stress model checks).
TEST_F(entry_points, realloc_that_fails_leaves_the_block_as_it_was_or_released_at_0) {
    void* block = tarnheap_malloc(40);
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(block, 0), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(tarnheap_malloc(40), block);
    std::memset(block, 7, 40);
    heap_state.fallback_malloc = nullptr;
    errno = 0;
    EXPECT_EQ(tarnheap_realloc(block, LARGE_MAX + 1), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(tarnheap_realloc(block, 48), block);
    EXPECT_EQ(static_cast<char*>(block)[39], 7);
}

// While initialisation runs, requests are carved from the bootstrap arena: a 16-byte header
// with the piece's size, then the block. Pieces are never reused; resize keeps them while they
// fit and moves them otherwise; a full arena without a fallback fails.
TEST_F(entry_points, requests_during_initialisation_come_from_the_bootstrap_arena) {
    heap_state.init_state = INITIALISING;
    auto* block = static_cast<uint8_t*>(tarnheap_malloc(100));
    EXPECT_EQ(block, heap_state.bootstrap_arena + 16);
    uint64_t header;
    std::memcpy(&header, heap_state.bootstrap_arena, sizeof header);
    EXPECT_EQ(header, 128u);
    EXPECT_EQ(tarnheap_calloc(2, 10), heap_state.bootstrap_arena + 128 + 16);
    tarnheap_free(block);
    EXPECT_EQ(heap_state.bootstrap_used, 128u + 48u);
    std::memset(block, 9, 112);
    EXPECT_EQ(tarnheap_realloc(block, 112), block);
    EXPECT_EQ(tarnheap_realloc(block, 10), block);
    heap_state.bootstrap_used = 0x200000 - 128;  // room for exactly one more such piece
    EXPECT_EQ(tarnheap_malloc(100), heap_state.bootstrap_arena + 0x200000 - 112);
    heap_state.fallback_malloc = nullptr;
    errno = 0;
    EXPECT_EQ(tarnheap_malloc(100), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    heap_state.init_state = NOT_STARTED;
    auto* moved = static_cast<uint8_t*>(tarnheap_realloc(block, 113));
    ASSERT_EQ(place(moved).where, area::small);
    EXPECT_EQ(moved[111], 9);
}

// An address whose low bits fall in a class's segment but whose high bits differ is not the
// heap's: it goes to the C runtime's free.
TEST_F(entry_points, foreign_pointers_go_back_to_the_fallback) {
    start_heap();
    static void* released;
    heap_state.fallback_free = [](void* block) { released = block; };
    uint64_t lookalike = (region_base() ^ (uint64_t{1} << 40)) + 18 * SEGMENT_BYTES + 4096;
    tarnheap_free(reinterpret_cast<void*>(lookalike));
    EXPECT_EQ(released, reinterpret_cast<void*>(lookalike));
    EXPECT_EQ(heap_state.small_class_head[18].depth, 0);
}

struct mallopt_call {
    int option, value, answer;
};

TEST_F(entry_points, mallopt_answers_its_option_and_the_probe_only_without_touching_errno) {
    const mallopt_call calls[] = {{57005, 48879, 2989}, {3225, 0, 1}, {3225, 5, 1}, {57005, 0, 0},
                                  {1, 48879, 0},        {0, 0, 0},    {-1, -1, 0}};
    for (const mallopt_call& c : calls) {
        errno = 1234;
        EXPECT_EQ(tarnheap_mallopt(c.option, c.value), c.answer) << c.option << " " << c.value;
        EXPECT_EQ(errno, 1234);
    }
    // Before the first request: overwritten by the start's coarse routing.
    EXPECT_EQ(heap_state.init_state, NOT_STARTED);
    tarnheap_mallopt(3225, 0);
    EXPECT_EQ(place(tarnheap_malloc(9)).small_class, 3u);
}

// A run claimed at block level leaves its groups clear in the group bitmap, so a later search
// finds them again and two live blocks share groups: the designed behaviour, kept as it is.
TEST_F(entry_points, a_run_claimed_at_block_level_is_found_again) {
    void* first = tarnheap_malloc(284884993);
    ASSERT_EQ(group_of(first).large.run_groups, 4096u);
    void* second = tarnheap_malloc(284884993);
    EXPECT_GE(group_index(second), group_index(first));
    EXPECT_LT(group_index(second), group_index(first) + 4096);
}

// The area filled one group at a time, then: a full area sends requests to the fallback; a
// finder that fails while the cache holds enough groups gets a flush and a second try. (That no
// group is handed out twice the stress test's exhaustion case checks.)
TEST_F(entry_points, an_exhausted_area_flushes_the_cache_then_falls_back) {
    std::vector<void*> blocks;
    do blocks.push_back(tarnheap_malloc(40000));
    while (place(blocks.back()).where == area::run);
    // Every group was claimed once, by the warm-up or for a block.
    EXPECT_EQ(heap_state.group_search_state.run_counts[0], GROUP_COUNT);
    blocks.push_back(tarnheap_malloc(3000));
    EXPECT_EQ(place(blocks.back()).where, area::foreign);

    // Three neighbours released in order: the trim before the claim evicts only the oldest,
    // too short alone; the two still cached are enough, so a flush and a retry follow.
    uint32_t g = group_index(blocks[1000]);
    for (int i = 1000; i < 1003; ++i) tarnheap_free(std::exchange(blocks[i], nullptr));
    EXPECT_EQ(group_index(blocks.emplace_back(tarnheap_malloc(2 * GROUP_BYTES))), g);
    EXPECT_EQ(heap_state.cached_groups, 0u);
    EXPECT_EQ(place(blocks.emplace_back(tarnheap_malloc(2 * GROUP_BYTES))).where, area::foreign);
    EXPECT_EQ(group_index(blocks.emplace_back(tarnheap_malloc(40000))), g + 2);
    for (void* block : blocks) tarnheap_free(block);
}

std::vector<std::pair<uint64_t, uint64_t>> commits;  // (address, size), in order

TEST_F(entry_points, chunks_are_committed_once_each_in_order) {
    start_heap();
    commits.clear();
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type == MEMORY_COMMIT) commits.emplace_back(reinterpret_cast<uint64_t>(at), size);
        return platform_virtual_alloc(at, size, type, protect);
    };
    commit_groups(7599, 2);
    commit_groups(7000, 1000);
    commit_groups(60800, 1);
    commit_groups(68384, 1);
    uint64_t base = heap_state.bucket_area_base;
    constexpr uint64_t CHUNK = 0x2001C000, LAST_CHUNK = 0x1FF20000;
    const std::vector<std::pair<uint64_t, uint64_t>> expected = {
        {base, CHUNK}, {base + CHUNK, CHUNK}, {base + 8 * CHUNK, LAST_CHUNK}};
    EXPECT_EQ(commits, expected);
}

// Only requests of 700 KiB to 1 MiB count; the 201st reserves the region at its hint, claims
// the warm-up's single slots and then the block's 13, fresh and zero.
TEST_F(entry_points, the_zeroed_region_is_made_at_the_201st_qualifying_calloc) {
    for (int i = 0; i < 200; ++i) {
        void* block = tarnheap_calloc(1, 800000);
        ASSERT_EQ(place(block).where, area::run) << i;
        tarnheap_free(block);
    }
    tarnheap_free(tarnheap_calloc(1, 716784));
    tarnheap_free(tarnheap_calloc(1, 1048577));
    EXPECT_EQ(heap_state.zeroed_region_base, 0u);
    auto* block = static_cast<char*>(tarnheap_calloc(1, 800000));
    ASSERT_EQ(place(block).where, area::zeroed);
    EXPECT_EQ(heap_state.zeroed_region_base, ZEROED_HINT);
    uint64_t slot = (reinterpret_cast<uint64_t>(block) - ZEROED_HINT) / SLOT_BYTES;
    EXPECT_EQ(slot, heap_state.zeroed_search_state.run_counts[0]);
    EXPECT_EQ(heap_state.zeroed_run_length[slot], 13u);
    EXPECT_TRUE(std::all_of(block, block + 13 * SLOT_BYTES, [](char byte) { return byte == 0; }));
}

}  // namespace
}  // namespace tarnheap::testing
