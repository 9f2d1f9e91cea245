// Faults injected through the platform seam and the fallback entries: failed commits of each
// area, a refused region, a refused reservation of the zeroed region, and each
// missing entry of the C runtime. (The stress test runs whole traffic on failing commits.)
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <string>

#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

bool all_zero(const void* block, size_t bytes) {
    auto* first = static_cast<const unsigned char*>(block);
    return std::all_of(first, first + bytes, [](unsigned char b) { return b == 0; });
}

std::string lower(std::string text) {
    for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

void refuse(uint32_t refused_type) {
    static uint32_t refused;
    refused = refused_type;
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        void* got = platform_virtual_alloc(at, size, type, protect);
        return type == refused ? nullptr : got;
    };
}

struct commit_case {
    const char* name;
    void* (*request)();
    uint64_t address, size;  // of the commit
    void (*again)();         // more requests in the same area, which must not commit again
};

const commit_case COMMIT_CASES[] = {
    {"class_7_segment", [] { return tarnheap_malloc(30); }, REGION_HINT + 7 * SEGMENT_BYTES,
     134217728,
     [] {
         for (int i = 0; i < 2 * REFILL; ++i) ASSERT_NE(tarnheap_malloc(30), nullptr);
     }},
    {"bucket_area_chunk_0", [] { return tarnheap_malloc(3000); }, REGION_HINT + BUCKET_AREA_OFFSET,
     536985600,
     [] {
         for (size_t size : {5000, 9000, 40000, 60000}) ASSERT_NE(tarnheap_malloc(size), nullptr);
     }},
    {"zeroed_region", [] { return heap_state.zeroed_uses = 200, tarnheap_calloc(1, 800000); },
     ZEROED_HINT, 67108864,
     [] {
         for (int i = 0; i < 100; ++i) tarnheap_free(tarnheap_calloc(1, 1000000));
     }},
};

class failed_commit : public fresh_heap, public ::testing::WithParamInterface<commit_case> {};

// The commit reports failure but does happen, so that the blocks stay usable here: both
// messages are printed once, the block is served, and the commit is never retried.
TEST_P(failed_commit, prints_both_messages_once_and_serves_the_block) {
    const commit_case& c = GetParam();
    start_heap();
    refuse(MEMORY_COMMIT);
    platform_seams.last_error = [] { return uint32_t{1455}; };
    ::testing::internal::CaptureStderr();
    void* block = c.request();
    std::string printed = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(all_zero(block, 16));
    auto* at = reinterpret_cast<void*>(c.address);
    auto size = static_cast<unsigned long long>(c.size);
    char expected[512];
    std::snprintf(expected, sizeof expected,
                  "Error: VirtualAlloc(0x%p, %llu, MEM_COMMIT, PAGE_READWRITE) failed with the "
                  "error: 1455\nError: VirtualAlloc(0x%p, %llu, MEM_COMMIT, PAGE_READWRITE) "
                  "returned a different address: 0x%p\n",
                  at, size, at, size, nullptr);
    // %p is the C runtime's own: msvcrt renders hex digits in capitals.
    EXPECT_EQ(lower(printed), lower(expected));
    ::testing::internal::CaptureStderr();
    c.again();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(areas, failed_commit, ::testing::ValuesIn(COMMIT_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

// The request goes to runs of groups, and the next one tries the reservation again.
TEST_F(fresh_heap, a_refused_zeroed_region_leaves_the_request_to_runs_and_is_retried) {
    start_heap();
    heap_state.zeroed_uses = 200;
    static int reservations_at_hint;
    reservations_at_hint = 0;
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        if (type != MEMORY_RESERVE || reinterpret_cast<uint64_t>(at) != ZEROED_HINT)
            return platform_virtual_alloc(at, size, type, protect);
        ++reservations_at_hint;
        return static_cast<void*>(nullptr);
    };
    for (int attempt = 1; attempt <= 2; ++attempt) {
        void* block = tarnheap_calloc(4, 200000);
        ASSERT_EQ(place(block).where, area::run);
        EXPECT_TRUE(all_zero(block, 800000));
        EXPECT_EQ(reservations_at_hint, attempt);
    }
    platform_seams.virtual_alloc = nullptr;
    EXPECT_EQ(place(tarnheap_calloc(4, 200000)).where, area::zeroed);
}

// A heap whose region could not be reserved (refused, or something else lives at the hint: the
// heap does not look elsewhere) leaves everything to the C runtime's four entries for good,
// without a word; a missing one turns each request that needs it into null with errno 12, or into
// the next entry.
struct missing_entry {
    const char* name;
    void (*remove)();
    void* (*request)();
    bool answered;  // by calloc, or by malloc for calloc
};

const missing_entry MISSING_ENTRIES[] = {
    {"none", [] {}, [] { return tarnheap_calloc(10, 10); }, true},
    {"malloc", [] { heap_state.fallback_malloc = nullptr; }, [] { return tarnheap_malloc(100); },
     false},
    {"malloc_for_realloc", [] { heap_state.fallback_malloc = nullptr; },
     [] { return tarnheap_realloc(nullptr, 100); }, false},
    {"realloc", [] { heap_state.fallback_realloc = nullptr; },
     [] { return tarnheap_realloc(tarnheap_calloc(10, 10), 6000); }, false},
    {"calloc_then_malloc", [] { heap_state.fallback_calloc = nullptr; },
     [] { return tarnheap_calloc(10, 10); }, true},
    {"calloc_and_malloc",
     [] { heap_state.fallback_calloc = nullptr, heap_state.fallback_malloc = nullptr; },
     [] { return tarnheap_calloc(10, 10); }, false},
    {"free", [] { heap_state.fallback_free = nullptr; }, [] { return tarnheap_calloc(10, 10); },
     true},
};

class missing_fallback : public fresh_heap, public ::testing::WithParamInterface<missing_entry> {};

void (*c_free)(void*);
void* released;

TEST_P(missing_fallback, fails_with_enomem_or_takes_the_next_entry) {
    refuse(MEMORY_RESERVE);
    ::testing::internal::CaptureStderr();
    tarnheap_free(tarnheap_malloc(1));  // initialises, and fails to reserve
    ASSERT_EQ(heap_state.init_state, FAILED);
    c_free = heap_state.fallback_free;
    heap_state.fallback_free = [](void* freed) { released = freed, c_free(freed); };
    GetParam().remove();
    bool freed_by_c = heap_state.fallback_free != nullptr;
    errno = 0;
    released = nullptr;
    void* block = GetParam().request();
    EXPECT_EQ(block != nullptr, GetParam().answered);
    if (block == nullptr) {
        EXPECT_EQ(errno, ENOMEM);
    } else {
        EXPECT_TRUE(all_zero(block, 100));
        tarnheap_free(block);
        EXPECT_EQ(released, freed_by_c ? block : nullptr);
        // Still the C runtime's block: its free would abort on a double release.
        if (!freed_by_c) c_free(block);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(entries, missing_fallback, ::testing::ValuesIn(MISSING_ENTRIES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
