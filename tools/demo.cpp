// Shows TARNHEAP.dll answering and serving allocations: each block is named by the area that
// served it, which follows from its address alone.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "tarnheap.h"

namespace {

constexpr uint64_t REGION_BYTES = 0x200000000;  // the heap's one 8 GiB reservation
constexpr uint64_t SEGMENT_BYTES = 0x8000000;   // one small class each
constexpr uint64_t SMALL_AREA_BYTES = 0xE0000000;
constexpr uint64_t GROUP_BYTES = 70656;             // the bucket area's unit of claim
constexpr uint64_t ZEROED_REGION = 0x7ff000000000;  // where calloc's zeroed region is asked for
constexpr uint64_t ZEROED_BYTES = 0x4000000;

uint64_t region_base = 0;

void describe(const char* what, size_t size, void* block) {
    auto address = reinterpret_cast<uint64_t>(block);
    uint64_t offset = address - region_base;
    std::printf("  %-26s %10zu bytes at %p: ", what, size, block);
    if (block == nullptr)
        std::printf("refused\n");
    else if (region_base != 0 && offset < SMALL_AREA_BYTES)
        std::printf("small class %llu\n", static_cast<unsigned long long>(offset / SEGMENT_BYTES));
    else if (region_base != 0 && offset < REGION_BYTES)
        std::printf("bucket area, group %llu\n",
                    static_cast<unsigned long long>((offset - SMALL_AREA_BYTES) / GROUP_BYTES));
    else if (address - ZEROED_REGION < ZEROED_BYTES)
        std::printf("calloc's zeroed region\n");
    else
        std::printf("the C runtime (fallback)\n");
}

}  // namespace

int main() {
    int answer = mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE);
    std::printf("mallopt probe answers %d: %s\n", answer,
                answer == TARNHEAP_PROBE_ANSWER ? "TARNHEAP.dll serves this heap" : "not TarnHeap");

    void* first = std::malloc(24);
    region_base = reinterpret_cast<uint64_t>(first) & ~(REGION_BYTES - 1);
    std::printf("the heap's region starts at %p\n", reinterpret_cast<void*>(region_base));

    std::printf("small blocks, used and freed:\n");
    describe("malloc", 24, first);
    for (size_t size : {1, 8, 16, 48, 100, 256}) {
        void* block = std::malloc(size);
        std::memset(block, 0xA5, size);
        describe("malloc", size, block);
        std::free(block);
    }
    void* again = std::malloc(100);
    describe("malloc after free (reused)", 100, again);
    void* zeroed = std::calloc(10, 10);
    describe("calloc 10 x 10", 100, zeroed);
    std::free(again);
    std::free(zeroed);
    std::free(first);

    std::printf("bucket units and runs of groups:\n");
    for (size_t size :
         {size_t{1000}, size_t{3000}, size_t{35328}, size_t{40000}, size_t{10} << 20}) {
        void* block = std::malloc(size);
        if (block != nullptr) std::memset(block, 0x5A, size);
        describe(size <= 35328 ? "malloc (bucket unit)" : "malloc (run of groups)", size, block);
        std::free(block);
    }

    std::printf("calloc of 800000 bytes: a run of groups 200 times, then the zeroed region:\n");
    for (int request = 1; request <= 201; ++request) {
        void* block = std::calloc(1, 800000);
        if (request == 1 || request == 201)
            describe(request == 1 ? "calloc, 1st request" : "calloc, 201st request", 800000, block);
        std::free(block);
    }

    std::printf("beyond the bucket area:\n");
    size_t huge = size_t{5} << 30;
    void* block = std::malloc(huge);
    describe("malloc (above 4.5 GiB)", huge, block);
    std::free(block);
    return 0;
}
