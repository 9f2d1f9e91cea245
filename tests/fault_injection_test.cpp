// Faults injected through the platform seam and the fallback entries: failed commits of each
// area, a refused region, a refused reservation of the zeroed region, and each
// missing entry of the C runtime. (The stress test runs whole traffic on failing commits.)
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "support/case_printer.h"
#include "support/figures.h"
#include "support/fresh_heap.h"
#include "tarnheap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

const unsigned char ZEROS[800000] = {};
bool all_zero(const void* block, size_t bytes) {
    return std::memcmp(block, ZEROS, bytes) == 0;
}

// The platform refuses every request of one type, at one address or (0) at any, and counts the
// refusals. A refused commit still happens, so that the blocks stay usable here; a refused
// reservation does not, so that the address stays free for a later attempt.
uint32_t refused_type;
uint64_t refused_at;
int refusals;

void* refusing_virtual_alloc(void* at, uint64_t size, uint32_t type, uint32_t protect) {
    bool refused = type == refused_type && (refused_at == 0 || refused_at == uint64_t(at));
    refusals += refused;
    if (refused && type != MEMORY_COMMIT) return nullptr;
    void* got = platform_virtual_alloc(at, size, type, protect);
    return refused ? nullptr : got;
}

void refuse(uint32_t type, uint64_t at = 0) {
    refused_type = type, refused_at = at, refusals = 0;
    platform_seams.virtual_alloc = refusing_virtual_alloc;
}

// The request is made again, without releasing, as often as it takes to claim more memory in
// the same area, which must not be committed again.
struct commit_case {
    const char* name;
    void* (*request)();
    uint64_t address, size;  // of the commit
    int again;
};

const commit_case COMMIT_CASES[] = {
    {"class_7_segment", [] { return tarnheap_malloc(30); }, REGION_HINT + 7 * SEGMENT_BYTES,
     134217728, 2 * REFILL},
    {"bucket_area_chunk_0", [] { return tarnheap_malloc(3000); }, REGION_HINT + BUCKET_AREA_OFFSET,
     536985600, 100},
    {"zeroed_region", [] { return heap_state.zeroed_uses = 200, tarnheap_calloc(1, 800000); },
     ZEROED_HINT, 67108864, 20},
};

class failed_commit : public fresh_heap, public ::testing::WithParamInterface<commit_case> {};

// Both messages are printed once, the block is served, and the commit is never retried.
TEST_P(failed_commit, prints_both_messages_once_and_serves_the_block) {
    const commit_case& c = GetParam();
    start_heap();
    refuse(MEMORY_COMMIT);
    platform_seams.last_error = [] { return uint32_t{1455}; };
    ::testing::internal::CaptureStderr();
    void* block = c.request();
    std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(block != nullptr && all_zero(block, 16));
    auto* at = reinterpret_cast<void*>(c.address);
    auto size = static_cast<unsigned long long>(c.size);
    char expected[512];
    std::snprintf(expected, sizeof expected,
                  "Error: VirtualAlloc(0x%p, %llu, MEM_COMMIT, PAGE_READWRITE) failed with the "
                  "error: 1455\nError: VirtualAlloc(0x%p, %llu, MEM_COMMIT, PAGE_READWRITE) "
                  "returned a different address: 0x%p\n",
                  at, size, at, size, nullptr);
    // %p is the C runtime's own: msvcrt renders hex digits in capitals.
    EXPECT_STRCASEEQ(printed.c_str(), expected);
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < c.again; ++i) ASSERT_NE(c.request(), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(areas, failed_commit, ::testing::ValuesIn(COMMIT_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

// The request goes to runs of groups, and the next one tries the reservation again.
TEST_F(fresh_heap, a_refused_zeroed_region_leaves_the_request_to_runs_and_is_retried) {
    start_heap();
    heap_state.zeroed_uses = 200;
    refuse(MEMORY_RESERVE, ZEROED_HINT);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        void* block = tarnheap_calloc(4, 200000);
        ASSERT_EQ(place(block).where, area::run);
        EXPECT_TRUE(all_zero(block, 800000));
        EXPECT_EQ(refusals, attempt);
    }
    platform_seams.virtual_alloc = nullptr;
    EXPECT_EQ(place(tarnheap_calloc(4, 200000)).where, area::zeroed);
}

// A heap whose region could not be reserved (refused, or something else lives at the hint: the
// heap does not look elsewhere) leaves everything to the C runtime's four entries for good,
// without a word; a missing one turns each request that needs it into null with errno 12, or into
// the next entry.
enum removed_entries { MALLOC = 1, CALLOC = 2, REALLOC = 4, FREE = 8 };

struct missing_entry {
    const char* name;
    int removed;
    void* (*request)();
    bool answered;  // by calloc, or by malloc for calloc
};

const missing_entry MISSING_ENTRIES[] = {
    {"malloc", MALLOC, [] { return tarnheap_malloc(100); }, false},
    {"realloc", REALLOC, [] { return tarnheap_realloc(tarnheap_calloc(10, 10), 6000); }, false},
    {"calloc_then_malloc", CALLOC, [] { return tarnheap_calloc(10, 10); }, true},
    {"calloc_and_malloc", CALLOC | MALLOC, [] { return tarnheap_calloc(10, 10); }, false},
    {"free", FREE, [] { return tarnheap_calloc(10, 10); }, true},
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
    int removed = GetParam().removed;
    if (removed & MALLOC) heap_state.fallback_malloc = nullptr;
    if (removed & CALLOC) heap_state.fallback_calloc = nullptr;
    if (removed & REALLOC) heap_state.fallback_realloc = nullptr;
    if (removed & FREE) heap_state.fallback_free = nullptr;
    errno = 0, released = nullptr;
    void* block = GetParam().request();
    EXPECT_EQ(block != nullptr, GetParam().answered);
    EXPECT_TRUE(block != nullptr || errno == ENOMEM) << errno;
    if (block != nullptr) {
        EXPECT_TRUE(all_zero(block, 100));
        tarnheap_free(block);
        EXPECT_EQ(released, removed & FREE ? nullptr : block);
        if (removed & FREE) c_free(block);  // still the C runtime's: it would abort on a repeat
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

INSTANTIATE_TEST_SUITE_P(entries, missing_fallback, ::testing::ValuesIn(MISSING_ENTRIES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarnheap::testing
