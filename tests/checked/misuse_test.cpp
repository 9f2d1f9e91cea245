// The checked build against each misuse it finds, in every area of the heap: the program stops
// with the message that names the misuse, the call and the block, followed by the return
// addresses; the same program with correct use runs to its end and prints nothing.
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

char* taken(size_t size) {
    auto* block = static_cast<char*>(tarnheap_malloc(size));
    std::memset(block, 0x5a, size);
    return block;
}

// A write where the program must not write, out of the compiler's sight.
void stray_write(char* block, size_t offset) {
    char* volatile at = block;
    at[offset] = 1;
}

// calloc's zeroed region serves 716800 to 1048576 bytes once 200 such requests have passed.
char* zeroed(size_t size) {
    heap_state.zeroed_uses = 200;
    return static_cast<char*>(tarnheap_calloc(1, size));
}

void small_released_twice(bool misuse) {
    char* block = taken(24);
    tarnheap_free(block);
    if (misuse) tarnheap_free(block);
}

void unit_released_twice(bool misuse) {
    char* neighbour = taken(3000);
    char* block = taken(3000);
    tarnheap_free(block);
    if (misuse) tarnheap_free(block);
    tarnheap_free(neighbour);
}

void large_released_twice(bool misuse) {
    char* block = taken(300000);
    tarnheap_free(block);
    if (misuse) tarnheap_free(block);
}

void zeroed_released_twice(bool misuse) {
    char* block = zeroed(800000);
    tarnheap_free(block);
    if (misuse) tarnheap_free(block);
}

void released_block_resized(bool misuse) {
    char* block = taken(100);
    if (misuse) tarnheap_free(block);
    tarnheap_free(tarnheap_realloc(block, 200));
}

void small_interior_released(bool misuse) {
    char* block = taken(24);
    tarnheap_free(block + (misuse ? 8 : 0));
}

void unit_interior_resized(bool misuse) {
    char* block = taken(3000);
    tarnheap_free(tarnheap_realloc(block + (misuse ? 64 : 0), 4000));
}

void large_interior_released(bool misuse) {
    char* block = taken(300000);
    tarnheap_free(block + (misuse ? 100000 : 0));
}

void zeroed_interior_released(bool misuse) {
    char* block = zeroed(800000);
    tarnheap_free(block + (misuse ? 65536 : 0));
}

// Group 0 is the initialisation's and never holds a block.
void bucket_area_outside_blocks_released(bool misuse) {
    void* foreign = std::malloc(64);
    tarnheap_free(misuse ? reinterpret_cast<void*>(heap_state.bucket_area_base + 64) : foreign);
    if (misuse) std::free(foreign);
}

// A segment holds its bitmap before its first block.
void small_segment_outside_blocks_released(bool misuse) {
    tarnheap_free(taken(16));
    if (misuse) tarnheap_free(reinterpret_cast<void*>(heap_state.small_class[3].first_block - 64));
}

void small_written_after_release(bool misuse) {
    char* block = taken(24);
    tarnheap_free(block);
    if (misuse) stray_write(block, 5);
    tarnheap_free(taken(24));
}

void unit_written_after_release(bool misuse) {
    char* neighbour = taken(3000);
    char* block = taken(3000);
    tarnheap_free(block);
    if (misuse) stray_write(block, 2999);
    tarnheap_free(tarnheap_calloc(1, 3000));
    tarnheap_free(neighbour);
}

// A resize's new block starts at its run's first byte, at or before where the old one started.
void large_written_after_release(bool misuse) {
    char* block = taken(300000);
    tarnheap_free(block);
    if (misuse) stray_write(block, 100);
    tarnheap_free(tarnheap_realloc(nullptr, 300000));
}

void zeroed_written_after_release(bool misuse) {
    char* block = zeroed(800000);
    tarnheap_free(block);
    if (misuse) stray_write(block, 1000);
    tarnheap_free(zeroed(800000));
}

void small_written_past_end(bool misuse) {
    char* block = taken(20);
    if (misuse) stray_write(block, 20);
    tarnheap_free(block);
}

void calloc_block_written_past_end(bool misuse) {
    auto* block = static_cast<char*>(tarnheap_calloc(3, 5));
    if (misuse) stray_write(block, 15);
    tarnheap_free(block);
}

void unit_written_past_end(bool misuse) {
    char* block = taken(3000);
    if (misuse) stray_write(block, 3071);
    tarnheap_free(tarnheap_realloc(block, 6000));
}

void large_written_past_end(bool misuse) {
    char* block = taken(300000);
    if (misuse) stray_write(block, 300000);
    tarnheap_free(block);
}

void zeroed_written_past_end(bool misuse) {
    char* block = zeroed(800000);
    if (misuse) stray_write(block, 800000);
    tarnheap_free(block);
}

struct misuse_case {
    const char* name;
    void (*scenario)(bool misuse);
    const char* message;  // the first line, up to the block's description
};

#define ADDRESS "0x[0-9a-f]+"
#define NUMBER "[0-9]+"

const misuse_case MISUSE_CASES[] = {
    {"small_released_twice", small_released_twice,
     "double release: free\\(" ADDRESS "\\): block " ADDRESS
     " of small class 7 \\(32-byte blocks\\), allocated with 24 bytes"},
    {"unit_released_twice", unit_released_twice,
     "double release: free\\(" ADDRESS "\\): block " ADDRESS
     " of bucket class 45 \\(3072-byte units\\) in group " NUMBER ", allocated with 3000 bytes"},
    {"large_released_twice", large_released_twice,
     "double release: free\\(" ADDRESS "\\): block " ADDRESS
     " of a released large run from group " NUMBER ", allocated with 300000 bytes"},
    {"zeroed_released_twice", zeroed_released_twice,
     "double release: free\\(" ADDRESS "\\): block " ADDRESS
     " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER
     "\\), allocated with 800000 bytes"},
    {"released_block_resized", released_block_resized,
     "double release: realloc\\(" ADDRESS ", 200\\): block " ADDRESS
     " of small class 18 \\(112-byte blocks\\), allocated with 100 bytes"},
    {"small_interior_released", small_interior_released,
     "not the start of a block: free\\(" ADDRESS "\\): 8 bytes into block " ADDRESS
     " of small class 7 \\(32-byte blocks\\), allocated with 24 bytes"},
    {"unit_interior_resized", unit_interior_resized,
     "not the start of a block: realloc\\(" ADDRESS ", 4000\\): 64 bytes into block " ADDRESS
     " of bucket class 45 \\(3072-byte units\\) in group " NUMBER ", allocated with 3000 bytes"},
    {"large_interior_released", large_interior_released,
     "not the start of a block: free\\(" ADDRESS "\\): 100000 bytes into block " ADDRESS
     " of the large run of 5 groups from group " NUMBER ", allocated with 300000 bytes"},
    {"zeroed_interior_released", zeroed_interior_released,
     "not the start of a block: free\\(" ADDRESS "\\): 65536 bytes into block " ADDRESS
     " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER
     "\\), allocated with 800000 bytes"},
    {"bucket_area_outside_blocks_released", bucket_area_outside_blocks_released,
     "not a block of this heap: free\\(" ADDRESS "\\): in group 0 of the bucket area, outside "
     "its blocks"},
    {"small_segment_outside_blocks_released", small_segment_outside_blocks_released,
     "not a block of this heap: free\\(" ADDRESS "\\): in the segment of small class 3, outside "
     "its blocks"},
    {"small_written_after_release", small_written_after_release,
     "write after release: malloc\\(24\\): byte 5 of released block " ADDRESS
     " of small class 7 \\(32-byte blocks\\), allocated with 24 bytes"},
    {"unit_written_after_release", unit_written_after_release,
     "write after release: calloc\\(1, 3000\\): byte 2999 of released block " ADDRESS
     " of bucket class 45 \\(3072-byte units\\) in group " NUMBER},
    {"large_written_after_release", large_written_after_release,
     "write after release: realloc\\(0x0, 300000\\): byte " NUMBER " of released block " ADDRESS
     " of the large run of 5 groups from group " NUMBER},
    {"zeroed_written_after_release", zeroed_written_after_release,
     "write after release: calloc\\(1, 800000\\): byte 1000 of released block " ADDRESS
     " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER
     "\\), allocated with 800000 bytes"},
    {"small_written_past_end", small_written_past_end,
     "write past the block's end: free\\(" ADDRESS "\\): byte 20 of block " ADDRESS
     " of small class 7 \\(32-byte blocks\\), allocated with 20 bytes"},
    {"calloc_block_written_past_end", calloc_block_written_past_end,
     "write past the block's end: free\\(" ADDRESS "\\): byte 15 of block " ADDRESS
     " of small class 3 \\(16-byte blocks\\), allocated with 15 bytes"},
    {"unit_written_past_end", unit_written_past_end,
     "write past the block's end: realloc\\(" ADDRESS ", 6000\\): byte 3071 of block " ADDRESS
     " of bucket class 45 \\(3072-byte units\\) in group " NUMBER ", allocated with 3000 bytes"},
    {"large_written_past_end", large_written_past_end,
     "write past the block's end: free\\(" ADDRESS "\\): byte 300000 of block " ADDRESS
     " of the large run of 5 groups from group " NUMBER ", allocated with 300000 bytes"},
    {"zeroed_written_past_end", zeroed_written_past_end,
     "write past the block's end: free\\(" ADDRESS "\\): byte 800000 of block " ADDRESS
     " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER
     "\\), allocated with 800000 bytes"},
};

class misuse : public fresh_heap, public ::testing::WithParamInterface<misuse_case> {
  protected:
    void SetUp() override {
        fresh_heap::SetUp();
        start_heap();
    }
};

TEST_P(misuse, stops_the_program_with_its_message_and_the_return_addresses) {
    const misuse_case& c = GetParam();
    std::string expected = std::string("tarnheap: ") + c.message + "\ntarnheap:   #0 " ADDRESS;
    EXPECT_DEATH(c.scenario(true), expected);
}

TEST_P(misuse, correct_use_runs_clean) {
    ::testing::internal::CaptureStderr();
    GetParam().scenario(false);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(every_area, misuse, ::testing::ValuesIn(MISUSE_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
