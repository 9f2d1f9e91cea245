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

std::string word(int i) {
    return std::string(20 + i % 300, static_cast<char>('a' + i % 26));
}

}  // namespace

int main(int argc, char** argv) {
    bool region = argc == 2 && std::strcmp(argv[1], "region") == 0;
    if (argc != 2 || (!region && std::strcmp(argv[1], "runtime") != 0)) {
        std::fprintf(stderr, "usage: consumer region|runtime\n");
        return 2;
    }
    int answer = mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
    // Strings long enough to live on the heap, in a vector that moves as it grows.
    std::vector<std::string> words;
    for (int i = 0; i < 2000; ++i) words.push_back(word(i));
    int misplaced = in_region(words.data()) != region, damaged = 0;
    for (int i = 0; i < 2000; ++i) {
        misplaced += in_region(words[i].data()) != region;
        damaged += words[i] != word(i);
    }
    std::printf("probe answered %d; %d of 2001 blocks not from %s, %d damaged\n", answer, misplaced,
                argv[1], damaged);
    return answer != TARNHEAP_PROBE_ANSWER || misplaced != 0 || damaged != 0;
}
