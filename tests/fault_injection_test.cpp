// Faults injected through the platform seam and the fallback entries that the other tests leave
// out: the zeroed region's commit and reservation, and each missing entry of the C runtime.
// (Commit failures of a segment and of a chunk, refused and taken reservations and the vendor
// check are tested with their areas; the stress test runs whole traffic on failing commits.)
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <string>

#include "bucket/bucket_release.h"
#include "platform/platform.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

constexpr uint64_t ZEROED_HINT = 0x7ff000000000;

bool in_zeroed_region(const void* block) {
    return heap_state.zeroed_region_base != 0 &&
           reinterpret_cast<uint64_t>(block) - heap_state.zeroed_region_base < ZEROED_REGION_BYTES;
}

bool all_zero(const void* block, size_t bytes) {
    auto* first = static_cast<const unsigned char*>(block);
    return std::all_of(first, first + bytes, [](unsigned char b) { return b == 0; });
}

int reservations_at_hint;

class zeroed_region_faults : public fresh_heap {
  protected:
    void SetUp() override {
        fresh_heap::SetUp();
        start_heap();
        heap_state.zeroed_uses = 200;  // past the requests that never use the region
        reservations_at_hint = 0;
    }
};

TEST_F(zeroed_region_faults, a_failed_commit_prints_both_messages_once_and_the_block_is_served) {
    // The commit reports failure but does happen, so that the blocks stay usable here.
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        void* got = platform_virtual_alloc(at, size, type, protect);
        return type == MEMORY_COMMIT && size == ZEROED_REGION_BYTES ? nullptr : got;
    };
    platform_seams.last_error = [] { return uint32_t{1455}; };
    ::testing::internal::CaptureStderr();
    void* block = tarnheap_calloc(1, 800000);
    std::string printed = ::testing::internal::GetCapturedStderr();
    ASSERT_TRUE(in_zeroed_region(block));
    EXPECT_TRUE(all_zero(block, 800000));
    char expected[512];
    void* region = reinterpret_cast<void*>(heap_state.zeroed_region_base);
    std::snprintf(expected, sizeof expected,
                  "Error: VirtualAlloc(0x%p, 67108864, MEM_COMMIT, PAGE_READWRITE) failed with the "
                  "error: 1455\nError: VirtualAlloc(0x%p, 67108864, MEM_COMMIT, PAGE_READWRITE) "
                  "returned a different address: 0x%p\n",
                  region, region, nullptr);
    // %p is the C runtime's own: msvcrt renders hex digits in capitals.
    for (char* c = expected; *c != 0; ++c) *c = static_cast<char>(std::tolower(*c));
    for (char& c : printed) c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(printed, expected);
    ::testing::internal::CaptureStderr();
    tarnheap_free(block);
    EXPECT_TRUE(in_zeroed_region(tarnheap_calloc(1, 1000000)));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(zeroed_region_faults, a_refused_reservation_leaves_the_request_to_runs_and_is_retried) {
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type != MEMORY_RESERVE || reinterpret_cast<uint64_t>(at) != ZEROED_HINT)
            return platform_virtual_alloc(at, size, type, protect);
        ++reservations_at_hint;
        return static_cast<void*>(nullptr);
    };
    for (int attempt = 1; attempt <= 2; ++attempt) {
        void* block = tarnheap_calloc(4, 200000);
        ASSERT_NE(block, nullptr);
        EXPECT_FALSE(in_zeroed_region(block));
        EXPECT_TRUE(all_zero(block, 800000));
        EXPECT_EQ(reservations_at_hint, attempt);
    }
    EXPECT_EQ(heap_state.zeroed_region_base, 0u);
    platform_seams.virtual_alloc = nullptr;
    EXPECT_TRUE(in_zeroed_region(tarnheap_calloc(4, 200000)));
}

// A heap whose reservation was refused leaves everything to the C runtime's four entries; a
// missing one turns each request that needs it into null with errno 12, or into the next entry.
struct missing_entry {
    const char* name;
    void (*remove)();
    void* (*request)();
    bool answered;
};

const missing_entry MISSING_ENTRIES[] = {
    {"malloc", [] { heap_state.fallback_malloc = nullptr; }, [] { return tarnheap_malloc(100); },
     false},
    {"malloc_for_realloc", [] { heap_state.fallback_malloc = nullptr; },
     [] { return tarnheap_realloc(nullptr, 100); }, false},
    {"calloc_then_malloc", [] { heap_state.fallback_calloc = nullptr; },
     [] { return tarnheap_calloc(10, 10); }, true},
    {"calloc_and_malloc",
     [] { heap_state.fallback_calloc = nullptr, heap_state.fallback_malloc = nullptr; },
     [] { return tarnheap_calloc(10, 10); }, false},
    // The C runtime's block is not released, and nothing else happens.
    {"free", [] { heap_state.fallback_free = nullptr; },
     [] {
         void* foreign = tarnheap_calloc(10, 10);
         tarnheap_free(foreign);
         return foreign;
     },
     true},
};

class missing_fallback : public fresh_heap, public ::testing::WithParamInterface<missing_entry> {};

TEST_P(missing_fallback, fails_with_enomem_or_takes_the_next_entry) {
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        return type == MEMORY_RESERVE ? nullptr : platform_virtual_alloc(at, size, type, protect);
    };
    tarnheap_free(tarnheap_malloc(1));  // initialises, and fails to reserve
    ASSERT_EQ(heap_state.init_state, INIT_FAILED);
    auto c_free = heap_state.fallback_free;
    GetParam().remove();
    errno = 0;
    void* block = GetParam().request();
    EXPECT_EQ(block != nullptr, GetParam().answered);
    if (block == nullptr) {
        EXPECT_EQ(errno, ENOMEM);
        return;
    }
    // The block is calloc's, and still the C runtime's: its free would abort on a double release.
    EXPECT_TRUE(all_zero(block, 100));
    c_free(block);
}

INSTANTIATE_TEST_SUITE_P(entries, missing_fallback, ::testing::ValuesIn(MISSING_ENTRIES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
