// The checked build against each misuse it finds, in every area of the heap: the program stops
// with the message that names the misuse, the call and the block, followed by the return
// addresses; the same program with correct use runs to its end and prints nothing.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/case_printer.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

#define ADDRESS "0x[0-9a-f]+"
#define NUMBER "[0-9]+"

char* taken(size_t size) {
    auto* block = static_cast<char*>(tarnheap_malloc(size));
    std::memset(block, 0x5a, size);
    return block;
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
    void (*release)(char* block);
    const char* release_call;
    void (*again)();
    const char* again_call;
    size_t size, past_end;       // bytes asked for; the last byte of the block
    const char* block;           // while in use
    const char* released_block;  // once released
    bool size_kept;              // whether a released block's messages still give its size
};

#define SMALL " of small class 3 \\(16-byte blocks\\)"
#define UNIT " of bucket class 45 \\(3072-byte units\\) in group " NUMBER
#define ZEROED " of the zeroed region \\(13 slots of 64 KiB from slot " NUMBER "\\)"
#define FREED "free\\(" ADDRESS "\\)"

void freed(char* block) {
    tarnheap_free(block);
}

const heap_area AREAS[] = {
    {"small", [] { return static_cast<char*>(tarnheap_calloc(3, 5)); },
     [](char* block) { tarnheap_free(tarnheap_realloc(block, 200)); },
     "realloc\\(" ADDRESS ", 200\\)", [] { tarnheap_free(taken(15)); }, "malloc\\(15\\)", 15, 15,
     SMALL, SMALL, true},
    // A neighbour keeps the group from emptying into the run cache.
    {"unit", [] { return taken(3000), taken(3000); },
     [](char* block) { tarnheap_free(tarnheap_realloc(block, 6000)); },
     "realloc\\(" ADDRESS ", 6000\\)", [] { tarnheap_free(tarnheap_calloc(1, 3000)); },
     "calloc\\(1, 3000\\)", 3000, 3071, UNIT, UNIT, false},
    // A resize's new block starts at its run's first byte, at or before the old one's start.
    {"large", [] { return taken(300000); }, freed, FREED,
     [] { tarnheap_free(tarnheap_realloc(nullptr, 300000)); }, "realloc\\(0x0, 300000\\)", 300000,
     300000, " of the large run of 5 groups from group " NUMBER,
     " of a released large run from group " NUMBER, false},
    {"zeroed", [] { return zeroed(800000); }, freed, FREED, [] { tarnheap_free(zeroed(800000)); },
     "calloc\\(1, 800000\\)", 800000, 800000, ZEROED, ZEROED, true},
};

// A scenario, run as misuse or as correct use, and the first line of its message up to the
// block's description.
struct misuse_case {
    std::string name;
    std::function<void(bool misuse)> scenario;
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
             [&a](bool misuse) {
                 char* block = a.make();
                 tarnheap_free(block);
                 if (misuse) a.release(block);
             },
             "double release: " + call + ": block " ADDRESS + a.released_block + allocated});
        cases.push_back({prefix + "interior_released",
                         [&a](bool misuse) { a.release(a.make() + (misuse ? 8 : 0)); },
                         "not the start of a block: " + call + ": 8 bytes into block " ADDRESS +
                             a.block + allocated});
        cases.push_back({prefix + "written_after_release",
                         [&a](bool misuse) {
                             char* block = a.make();
                             tarnheap_free(block);
                             if (misuse) stray_write(block, 5);
                             a.again();
                         },
                         "write after release: " + std::string(a.again_call) +
                             ": byte " NUMBER " of released block " ADDRESS + a.block +
                             (a.size_kept ? allocated : "")});
        cases.push_back({prefix + "written_past_end",
                         [&a](bool misuse) {
                             char* block = a.make();
                             if (misuse) stray_write(block, a.past_end);
                             a.release(block);
                         },
                         "write past the block's end: " + call + ": byte " +
                             std::to_string(a.past_end) + " of block " ADDRESS + a.block +
                             allocated});
    }
    cases.insert(
        cases.end(),
        {// Group 0 is the initialisation's and never holds a block.
         {"bucket_area_outside_blocks_released",
          [](bool misuse) {
              void* foreign = std::malloc(64);
              tarnheap_free(misuse ? reinterpret_cast<void*>(heap_state.bucket_area_base + 64)
                                   : foreign);
              if (misuse) std::free(foreign);
          },
          "not a block of this heap: " FREED ": in group 0 of the bucket area, outside its blocks"},
         // A segment holds its bitmap before its first block.
         {"small_segment_outside_blocks_released",
          [](bool misuse) {
              tarnheap_free(taken(16));
              if (misuse)
                  tarnheap_free(
                      reinterpret_cast<void*>(heap_state.small_class[3].first_block - 64));
          },
          "not a block of this heap: " FREED ": in the segment of small class 3, outside its "
          "blocks"}});
    return cases;
}

class misuse : public fresh_heap, public ::testing::WithParamInterface<misuse_case> {
  protected:
    void SetUp() override { fresh_heap::SetUp(), start_heap(); }
};

TEST_P(misuse, stops_the_program_with_its_message_and_the_return_addresses) {
    // The first return address lies in this program, at a small offset from its start.
    std::string expected = "tarnheap: " + GetParam().message +
                           "\ntarnheap:   #0 " ADDRESS " [^ ]*misuse_test\\+0x[0-9a-f]{1,8}\n";
    EXPECT_DEATH(GetParam().scenario(true), expected);
}

TEST_P(misuse, correct_use_runs_clean) {
    ::testing::internal::CaptureStderr();
    GetParam().scenario(false);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(every_area, misuse, ::testing::ValuesIn(every_case()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace tarnheap::testing
