// The checked build. Against each misuse it finds, in every area of the heap, the program stops
// with the message that names the misuse, the call and the block, followed by the return
// addresses. (That correct use runs clean, the stress test shows on the checked build.) And the
// checks change nothing the heap decides: the same random requests, made from the same state
// through the checked entries and through the heap's own (which the checked build keeps under
// other names), get the same blocks in the same order and leave the same state behind.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "checked/shadow.h"
#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

extern "C" {
void* tarnheap_unchecked_malloc(size_t size);
void* tarnheap_unchecked_calloc(size_t count, size_t size);
void* tarnheap_unchecked_realloc(void* block, size_t size);
void tarnheap_unchecked_free(void* block);
}

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

#define ADDRESS "0x[0-9a-f]+"
#define NUMBER "[0-9]+"

char* taken(size_t size) {
    return static_cast<char*>(tarnheap_malloc(size));
}

// calloc's zeroed region serves 716800 to 1048576 bytes once 200 such requests have passed.
char* zeroed(size_t size) {
    heap_state.zeroed_uses = 200;
    return static_cast<char*>(tarnheap_calloc(1, size));
}

// A write where the program must not write, out of the compiler's sight.
void stray_write(char* block, size_t offset) {
    char* volatile at = block;
    at[offset] = 1;
}

// Each area by a block it hands out, how the program gives it back (through free, or through a
// resize that moves it), the request that hands out such a block again (through another entry
// each), and how messages describe the block.
struct heap_area {
    const char* name;
    char* (*make)();
    void (*release)(void* block);
    const char* release_call;
    void (*again)();
    const char* again_call;
    size_t size, past_end;       // bytes asked for; the first guarded byte past them
    const char* block;           // while in use
    const char* released_block;  // once released
    bool size_kept;              // whether a released block's messages still give its size
};

#define SMALL " of small class 3 \\(16-byte blocks\\)"
#define UNIT " of bucket class 45 \\(3072-byte units\\) in group " NUMBER
#define ZEROED " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER "\\)"
#define FREED "free\\(" ADDRESS "\\)"

const heap_area AREAS[] = {
    {"small", [] { return static_cast<char*>(tarnheap_calloc(3, 5)); },
     [](void* block) { tarnheap_free(tarnheap_realloc(block, 200)); },
     "realloc\\(" ADDRESS ", 200\\)", [] { tarnheap_free(taken(15)); }, "malloc\\(15\\)", 15, 15,
     SMALL, SMALL, true},
    // A neighbour keeps the group from emptying into the run cache.
    {"unit", [] { return taken(3000), taken(3000); },
     [](void* block) { tarnheap_free(tarnheap_realloc(block, 6000)); },
     "realloc\\(" ADDRESS ", 6000\\)", [] { tarnheap_free(tarnheap_calloc(1, 3000)); },
     "calloc\\(1, 3000\\)", 3000, 3071, UNIT, UNIT, false},
    // A resize's new block starts at its run's first byte, at or before the old one's start.
    {"large", [] { return taken(300000); }, tarnheap_free, FREED,
     [] { tarnheap_free(tarnheap_realloc(nullptr, 300000)); }, "realloc\\(0x0, 300000\\)", 300000,
     300000, " of the large run of 5 groups from group " NUMBER,
     " of a released large run from group " NUMBER, false},
    {"zeroed", [] { return zeroed(800000); }, tarnheap_free, FREED,
     [] { tarnheap_free(zeroed(800000)); }, "calloc\\(1, 800000\\)", 800000, 800000, ZEROED, ZEROED,
     true},
};

// A misuse, and the first line of its message up to the block's description.
struct misuse_case {
    std::string name;
    std::function<void()> scenario;
    std::string message;
};

// The kinds of misuse every area finds, and pointers that were never blocks.
std::vector<misuse_case> every_case() {
    std::vector<misuse_case> cases;
    for (const heap_area& a : AREAS) {
        std::string allocated = ", allocated with " + std::to_string(a.size) + " bytes";
        std::string prefix = std::string(a.name) + "_", call = a.release_call;
        cases.push_back(
            {prefix + "released_twice",
             [&a] {
                 char* block = a.make();
                 tarnheap_free(block);
                 a.release(block);
             },
             "double release: " + call + ": block " ADDRESS + a.released_block + allocated});
        cases.push_back({prefix + "interior_released", [&a] { a.release(a.make() + 8); },
                         "not the start of a block: " + call + ": 8 bytes into block " ADDRESS +
                             a.block + allocated});
        cases.push_back({prefix + "written_after_release",
                         [&a] {
                             char* block = a.make();
                             tarnheap_free(block);
                             stray_write(block, 5);
                             a.again();
                         },
                         "write after release: " + std::string(a.again_call) +
                             ": byte " NUMBER " of released block " ADDRESS + a.block +
                             (a.size_kept ? allocated : "")});
        cases.push_back({prefix + "written_past_end",
                         [&a] {
                             char* block = a.make();
                             stray_write(block, a.past_end);
                             a.release(block);
                         },
                         "write past the block's end: " + call + ": byte " +
                             std::to_string(a.past_end) + " of block " ADDRESS + a.block +
                             allocated});
    }
    // Group 0 is the initialisation's and never holds a block; a segment holds its bitmap
    // before its first block.
    auto released = [](uint64_t address) { tarnheap_free(reinterpret_cast<void*>(address)); };
    cases.insert(
        cases.end(),
        {{"bucket_area_outside_blocks_released",
          [released] { released(heap_state.bucket_area_base + 64); },
          "not a block of this heap: " FREED ": in group 0 of the bucket area, outside its blocks"},
         {"small_segment_outside_blocks_released",
          [released] { released(heap_state.small_class[3].first_block - 64); },
          "not a block of this heap: " FREED ": in the segment of small class 3, outside its "
          "blocks"},
         // The released fill of the block below must not stand in for this block's own bytes.
         {"small_written_after_release_above_a_released_block",
          [] {
              char* first = AREAS[0].make();
              char* second = AREAS[0].make();
              tarnheap_free(std::min(first, second));
              tarnheap_free(std::max(first, second));
              stray_write(std::max(first, second), 13);
              AREAS[0].again();
          },
          "write after release: malloc\\(15\\): byte 13 of released block " ADDRESS SMALL
          ", allocated with 15 bytes"}});
    return cases;
}

class misuse : public fresh_heap, public ::testing::WithParamInterface<misuse_case> {};

TEST_P(misuse, stops_the_program_with_its_message_and_the_return_addresses) {
    start_heap();
    // The first return address lies in this program, at a small offset from its start.
    std::string expected = "tarnheap: " + GetParam().message +
                           "\ntarnheap:   #0 " ADDRESS
                           " [^ ]*checked_build_test\\+0x[0-9a-f]{1,8}\n";
    EXPECT_DEATH(GetParam().scenario(), expected);
}

INSTANTIATE_TEST_SUITE_P(every_area, misuse, ::testing::ValuesIn(every_case()),
                         [](const auto& info) { return info.param.name; });

class checked_build : public fresh_heap {};

// A request made while the heap starts (as the loading of the C runtime makes one) gets a piece
// of the bootstrap arena, whose release is a plain one even beside small blocks in use.
void* early_piece;

TEST_F(checked_build, a_block_handed_out_while_the_heap_starts_is_released_clean) {
    early_piece = nullptr;
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (early_piece == nullptr) early_piece = tarnheap_malloc(24);
        return platform_virtual_alloc(at, size, type, protect);
    };
    void* small = tarnheap_malloc(2);                         // class 0's first block, kept in use
    ASSERT_EQ(early_piece, heap_state.bootstrap_arena + 16);  // after its header
    ::testing::internal::CaptureStderr();
    tarnheap_free(early_piece);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(reinterpret_cast<uint64_t>(small), heap_state.small_class[0].first_block);
}

// The marks of released bucket granules lie in pieces committed as releases reach them; the
// piece that begins with the marks of group 6649's bytes 3072 on is first reached by the release
// of the second 3072-byte unit of a group there, whose marks all lie at its very start.
TEST_F(checked_build, a_release_whose_marks_begin_a_shadow_piece_runs_clean) {
    start_heap();
    std::vector<void*> blocks;  // one group each, claimed in order up to group 6649
    for (uint32_t g = heap_state.group_search_state.run_counts[0]; g < 6649; ++g)
        blocks.push_back(tarnheap_malloc(70000));
    void* first_unit = tarnheap_malloc(3000);
    auto* second_unit = static_cast<char*>(tarnheap_malloc(3000));
    uint64_t offset = 6649 * GROUP_BYTES + 3072;
    ASSERT_EQ(reinterpret_cast<uint64_t>(second_unit) - heap_state.bucket_area_base, offset);
    // What this checks holds while the unit's marks (a bit per 64 bytes) begin a piece.
    ASSERT_EQ((SHADOW_LAYOUT.filled_granules + offset / 64 / 64 * 8) % SHADOW_PIECE_BYTES, 0u);
    ::testing::internal::CaptureStderr();
    tarnheap_free(second_unit);
    tarnheap_free(first_unit);
    for (void* block : blocks) tarnheap_free(block);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// Each doubling from 1 byte to 64 MiB as likely as the next: small classes, bucket classes and
// runs alike. calloc's sizes stop at 1 MiB, the zeroed region's largest.
uint64_t drawn_size(std::mt19937_64& draws, unsigned doublings) {
    uint64_t high = uint64_t{1} << (draws() % doublings + 1);
    return high / 2 + draws() % (high / 2);
}

// Where the heap placed each of 20000 requests' blocks, in order; the C runtime's blocks, which
// its own state places, count as one address.
std::vector<uint64_t> serve(bool checked) {
    auto* malloc = checked ? tarnheap_malloc : tarnheap_unchecked_malloc;
    auto* calloc = checked ? tarnheap_calloc : tarnheap_unchecked_calloc;
    auto* realloc = checked ? tarnheap_realloc : tarnheap_unchecked_realloc;
    auto* free = checked ? tarnheap_free : tarnheap_unchecked_free;
    std::mt19937_64 draws(11);
    std::vector<void*> live;
    std::vector<uint64_t> placed;
    for (unsigned i = 0; i < 20000; ++i) {
        uint64_t kind = live.empty() ? 0 : draws() % 10;
        size_t pick = live.empty() ? 0 : draws() % live.size();
        void* block = kind < 3   ? malloc(drawn_size(draws, 26))
                      : kind < 4 ? calloc(1 + draws() % 3, drawn_size(draws, 20))
                      : kind < 6 ? realloc(live[pick], drawn_size(draws, 26))
                                 : (free(live[pick]), nullptr);
        // A released or moved block leaves the live ones.
        if (kind >= 6 || (kind >= 4 && block != nullptr)) live[pick] = live.back(), live.pop_back();
        if (kind >= 6) continue;
        auto address = reinterpret_cast<uint64_t>(block);
        bool in_region = (address & ~(REGION_BYTES - 1)) == region_base();
        bool zeroed = address - heap_state.zeroed_region_base < 0x4000000;
        placed.push_back(in_region || zeroed ? address : 1);
        if (block != nullptr) live.push_back(block);
    }
    for (void* block : live) free(block);
    return placed;
}

TEST_F(checked_build, hands_out_the_heaps_blocks_and_leaves_its_state) {
    start_heap();
    heap_state.zeroed_uses = 200;
    auto start = std::make_unique<heap_state_record>(heap_state);
    std::vector<uint64_t> unchecked = serve(false);
    auto end = std::make_unique<heap_state_record>(heap_state);
    // The start once more: the small classes' bitmaps, which lie in their segments (64 empty
    // bytes before the first block), cleared; the zeroed region given back, to be reserved where
    // it was; the shadow empty.
    for (const small_class_record& small_class : heap_state.small_class)
        if (small_class.uncommitted_base == 0)
            std::memset(
                small_class.bitmap, 0,
                small_class.first_block - 64 - reinterpret_cast<uint64_t>(small_class.bitmap));
    if (heap_state.zeroed_region_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(heap_state.zeroed_region_base), 0,
                              MEMORY_RELEASE);
    release_shadow();
    start_shadow();
    heap_state = *start;
    EXPECT_EQ(serve(true), unchecked);
    EXPECT_EQ(std::memcmp(&heap_state, end.get(), sizeof heap_state), 0);
}

}  // namespace
}  // namespace tarnheap::testing
