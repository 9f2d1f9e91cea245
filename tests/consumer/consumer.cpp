// A C++ program linked against TarnHeap as a user links it. It never calls malloc or free
// itself: operator new and delete do, from the C++ runtime's static library, which the linker
// meets after TarnHeap's; that is the case the package's link options are for.
//
// Usage: consumer region|runtime
//   where the blocks must come from: the heap's region, or the C runtime that the heap hands
//   every request to on a processor it does not run on.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarnheap.h"
#ifndef _WIN32
#include <malloc.h>  // mallopt
#endif

namespace {

constexpr uint64_t REGION_HINT = 0x7f0000000000;  // the heap's 8 GiB region, when it runs
constexpr uint64_t REGION_BYTES = 0x200000000;

bool in_region(const void* block) {
    return reinterpret_cast<uint64_t>(block) - REGION_HINT < REGION_BYTES;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 ||
        (std::strcmp(argv[1], "region") != 0 && std::strcmp(argv[1], "runtime") != 0)) {
        std::fprintf(stderr, "usage: consumer region|runtime\n");
        return 2;
    }
    bool expect_region = std::strcmp(argv[1], "region") == 0;
    int answer = mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
    if (answer != TARNHEAP_PROBE_ANSWER) {
        std::fprintf(stderr, "the probe answered %d: TarnHeap does not serve this program\n",
                     answer);
        return 1;
    }

    // Strings long enough to live on the heap, in a vector that moves as it grows.
    std::vector<std::string> words;
    for (int i = 0; i < 2000; ++i)
        words.emplace_back(20 + i % 300, static_cast<char>('a' + i % 26));
    int misplaced = in_region(words.data()) != expect_region;
    int damaged = 0;
    for (int i = 0; i < 2000; ++i) {
        const std::string& word = words[i];
        misplaced += in_region(word.data()) != expect_region;
        damaged += word != std::string(20 + i % 300, static_cast<char>('a' + i % 26));
    }
    words.clear();
    words.shrink_to_fit();
    if (misplaced != 0 || damaged != 0) {
        std::fprintf(stderr, "%d blocks not from %s, %d damaged\n", misplaced, argv[1], damaged);
        return 1;
    }
    std::printf("probe answered %d; 2001 blocks from %s\n", answer,
                expect_region ? "the heap's region" : "the C runtime");
    return 0;
}
