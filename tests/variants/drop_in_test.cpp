// The Linux drop-in, through libtarnheap.so preloaded into this program: requests for nothing,
// calloc's overflow, malloc_usable_size of every kind of block, the aligned allocators and
// reallocarray, each seen through the C library's names as a program written for glibc calls
// them. Blocks the heap serves lie in its 8 GiB region at the hint; the C library's lie outside.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/case_printer.h"
#include "tarnheap.h"

namespace {

using tarnheap::testing::operator<<;

constexpr uintptr_t REGION_HINT = 0x7f0000000000;
constexpr uintptr_t REGION_BYTES = 0x200000000;
constexpr uintptr_t GROUP_BYTES = 70656;
constexpr uintptr_t ZEROED_HINT = 0x7ff000000000;
constexpr uintptr_t ZEROED_BYTES = 0x4000000;
constexpr int UNTOUCHED = 77;

// In the 8 GiB region or in calloc's zeroed region.
bool in_region(const void* block) {
    auto address = reinterpret_cast<uintptr_t>(block);
    return address - REGION_HINT < REGION_BYTES || address - ZEROED_HINT < ZEROED_BYTES;
}

class preloaded_heap : public testing::Environment {
    void SetUp() override {
        ASSERT_EQ(mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE), TARNHEAP_PROBE_ANSWER)
            << "run with libtarnheap.so preloaded";
    }
};
testing::Environment* const PRELOADED_HEAP = testing::AddGlobalTestEnvironment(new preloaded_heap);

// glibc's own entries, for blocks the heap must treat as foreign.
template <typename function>
function* from_glibc(const char* name) {
    return reinterpret_cast<function*>(dlsym(dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD), name));
}

// Every entry as a call of two sizes (a count or an alignment, and a size), so that one table
// holds them all and the compiler sees no constant arguments to fold or warn about; realloc and
// reallocarray of null.
using entry = void* (*)(size_t, size_t);
const entry via_malloc = [](size_t, size_t size) { return malloc(size); };
const entry via_calloc = [](size_t count, size_t size) { return calloc(count, size); };
const entry via_realloc = [](size_t, size_t size) { return realloc(nullptr, size); };
const entry via_reallocarray = [](size_t count, size_t size) {
    return reallocarray(nullptr, count, size);
};
const entry via_aligned_alloc = [](size_t align, size_t size) {
    return aligned_alloc(align, size);
};
const entry via_memalign = [](size_t align, size_t size) { return memalign(align, size); };
const entry via_valloc = [](size_t, size_t size) { return valloc(size); };
const entry via_pvalloc = [](size_t, size_t size) { return pvalloc(size); };

// posix_memalign as the other entries answer: the block, or null with the error in errno. It
// must leave errno, and on a refusal the result, as they were.
void* via_posix_memalign(size_t alignment, size_t size) {
    void* block = &errno;
    int saved_errno = errno;
    int error = posix_memalign(&block, alignment, size);
    EXPECT_EQ(errno, saved_errno);
    if (error == 0) return block;
    EXPECT_EQ(block, &errno);
    errno = error;
    return nullptr;
}

// Who serves a request, or the errno of its refusal.
enum answer { FROM_HEAP = -1, FROM_C_LIBRARY = -2 };

struct request_case {
    const char* name;
    entry call;
    size_t first, size;
    int answer;
    size_t usable = 0;     // malloc_usable_size of a heap block; 0: at least the size
    size_t alignment = 1;  // the aligned entries' first argument
};

class request : public testing::TestWithParam<request_case> {};

// A block comes from the owner of its address, unique, aligned, usable as far as the heap
// says, and resizes with its bytes; errno is untouched. A refusal is null with its errno.
TEST_P(request, is_answered_as_a_glibc_program_expects) {
    const request_case& c = GetParam();
    errno = UNTOUCHED;
    auto* block = static_cast<unsigned char*>(c.call(c.first, c.size));
    if (c.answer >= 0) {
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(errno, c.answer);
        return;
    }
    EXPECT_EQ(errno, UNTOUCHED);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(in_region(block), c.answer == FROM_HEAP);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % c.alignment, 0u);
    if (c.usable != 0) {
        EXPECT_EQ(malloc_usable_size(block), c.usable);
    }
    bool product = c.call == via_calloc || c.call == via_reallocarray;
    size_t bytes = product ? c.first * c.size : c.size;
    EXPECT_GE(malloc_usable_size(block), bytes);
    void* second = c.call(c.first, c.size);
    EXPECT_NE(second, block);
    free(second);
    std::memset(block, 7, bytes);
    block = static_cast<unsigned char*>(realloc(block, 2 * bytes + 100));
    ASSERT_NE(block, nullptr);
    for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(block[i], 7) << i;
    free(block);
}

constexpr size_t TOO_MUCH = SIZE_MAX - 100;
const request_case REQUESTS[] = {
    // Requests for nothing are served as requests for a byte.
    {"malloc_of_0", via_malloc, 0, 0, FROM_HEAP, 4},
    {"calloc_of_0_by_8", via_calloc, 0, 8, FROM_HEAP, 16},
    {"calloc_of_8_by_0", via_calloc, 8, 0, FROM_HEAP, 16},
    {"realloc_of_null_to_0", via_realloc, 0, 0, FROM_HEAP, 4},
    {"reallocarray_of_null_0_by_8", via_reallocarray, 0, 8, FROM_HEAP, 4},
    {"aligned_alloc_64_of_0", via_aligned_alloc, 64, 0, FROM_HEAP, 0, 64},
    // Usable sizes are the classes' and the units'.
    {"malloc_of_3_class_0", via_malloc, 0, 3, FROM_HEAP, 4},
    {"malloc_of_5_class_1", via_malloc, 0, 5, FROM_HEAP, 8},
    {"malloc_of_100_class_18", via_malloc, 0, 100, FROM_HEAP, 112},
    {"malloc_of_256_class_27", via_malloc, 0, 256, FROM_HEAP, 256},
    {"malloc_of_300_bucket_5", via_malloc, 0, 300, FROM_HEAP, 320},
    {"malloc_of_3000_bucket_45", via_malloc, 0, 3000, FROM_HEAP, 3072},
    {"malloc_of_30000_bucket_66", via_malloc, 0, 30000, FROM_HEAP, 35328},
    {"calloc_of_1_mib", via_calloc, 1, 1 << 20, FROM_HEAP},
    {"reallocarray_of_null_10_by_30", via_reallocarray, 10, 30, FROM_HEAP, 320},
    // calloc refuses the products that would wrap: to 0 after rounding, to 100 (a small
    // class on the fast path), to 0, to 2^32 (the slow path), to 1.
    {"calloc_rounding_wraps", via_calloc, 1, SIZE_MAX - 14, ENOMEM},
    {"calloc_half_by_4", via_calloc, SIZE_MAX / 2, 4, ENOMEM},
    {"calloc_wraps_to_100", via_calloc, 4, (size_t{1} << 62) + 25, ENOMEM},
    {"calloc_wraps_to_0", via_calloc, size_t{1} << 63, 2, ENOMEM},
    {"calloc_wraps_to_2_pow_32", via_calloc, (size_t{1} << 32) + 1, size_t{1} << 32, ENOMEM},
    {"calloc_max_by_max", via_calloc, SIZE_MAX, SIZE_MAX, ENOMEM},
    {"reallocarray_wraps", via_reallocarray, size_t{1} << 32, size_t{1} << 32 | 4, ENOMEM},
    // The heap serves alignments its blocks already have; the C library the others.
    {"posix_memalign_8_of_1", via_posix_memalign, 8, 1, FROM_HEAP, 0, 8},
    {"posix_memalign_16_of_0", via_posix_memalign, 16, 0, FROM_HEAP, 0, 16},
    {"posix_memalign_32_of_100", via_posix_memalign, 32, 100, FROM_HEAP, 0, 32},
    {"posix_memalign_64_of_3000", via_posix_memalign, 64, 3000, FROM_HEAP, 0, 64},
    {"posix_memalign_128_of_100", via_posix_memalign, 128, 100, FROM_C_LIBRARY, 0, 128},
    {"posix_memalign_4096_of_10", via_posix_memalign, 4096, 10, FROM_C_LIBRARY, 0, 4096},
    {"aligned_alloc_1_of_5", via_aligned_alloc, 1, 5, FROM_HEAP},
    {"aligned_alloc_32_of_48", via_aligned_alloc, 32, 48, FROM_HEAP, 0, 32},
    {"aligned_alloc_256_of_1000", via_aligned_alloc, 256, 1000, FROM_C_LIBRARY, 0, 256},
    {"memalign_2_of_3", via_memalign, 2, 3, FROM_HEAP, 0, 2},
    {"memalign_64_of_200", via_memalign, 64, 200, FROM_HEAP, 0, 64},
    {"memalign_65536_of_100", via_memalign, 65536, 100, FROM_C_LIBRARY, 0, 65536},
    {"valloc_of_100", via_valloc, 0, 100, FROM_C_LIBRARY, 0, 4096},
    {"pvalloc_of_4097", via_pvalloc, 0, 4097, FROM_C_LIBRARY, 0, 4096},
    {"posix_memalign_0", via_posix_memalign, 0, 8, EINVAL},
    {"posix_memalign_4", via_posix_memalign, 4, 8, EINVAL},
    {"posix_memalign_24", via_posix_memalign, 24, 8, EINVAL},
    {"aligned_alloc_0", via_aligned_alloc, 0, 8, EINVAL},
    {"aligned_alloc_3", via_aligned_alloc, 3, 8, EINVAL},
    {"aligned_alloc_24", via_aligned_alloc, 24, 8, EINVAL},
    {"memalign_0", via_memalign, 0, 8, EINVAL},
    {"memalign_96", via_memalign, 96, 8, EINVAL},
    {"posix_memalign_64_of_too_much", via_posix_memalign, 64, TOO_MUCH, ENOMEM},
    {"posix_memalign_4096_of_too_much", via_posix_memalign, 4096, TOO_MUCH, ENOMEM},
    {"aligned_alloc_64_of_too_much", via_aligned_alloc, 64, TOO_MUCH, ENOMEM},
    {"memalign_4096_of_too_much", via_memalign, 4096, SIZE_MAX / 2, ENOMEM},
    {"valloc_of_too_much", via_valloc, 0, SIZE_MAX, ENOMEM},
};
INSTANTIATE_TEST_SUITE_P(entries, request, testing::ValuesIn(REQUESTS),
                         [](const auto& info) { return std::string(info.param.name); });

// glibc's answer to a resize to nothing: the block is freed (the heap's is the next one handed
// out), the result is null, errno stays. A foreign block goes to the C library.
TEST(realloc_to_nothing, frees_and_returns_null_with_errno_untouched) {
    for (size_t size : {100, 3000}) {
        void* block = malloc(size);
        errno = UNTOUCHED;
        EXPECT_EQ(realloc(block, 0), nullptr);
        EXPECT_EQ(errno, UNTOUCHED);
        EXPECT_EQ(malloc(size), block);
        free(block);
    }
    EXPECT_EQ(realloc(from_glibc<void*(size_t)>("malloc")(100), 0), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
    void* block = reallocarray(nullptr, 10, 30);
    EXPECT_EQ(reallocarray(block, 0, 30), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
}

// Called through a pointer, so that the compiler does not take a refused call for a release.
void* (*volatile const refused_reallocarray)(void*, size_t, size_t) = reallocarray;

TEST(reallocarray, refuses_a_product_that_overflows_and_keeps_the_block) {
    auto* block = static_cast<unsigned char*>(malloc(100));
    std::memset(block, 5, 100);
    errno = 0;
    EXPECT_EQ(refused_reallocarray(block, SIZE_MAX / 2, size_t{1} << 32 | 4), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(block[99], 5);
    block = static_cast<unsigned char*>(reallocarray(block, 100, 30));
    EXPECT_EQ(malloc_usable_size(block), 3072u);
    EXPECT_EQ(block[99], 5);
    free(block);
}

// A large block's usable size runs to the end of its run; a fine-routed block's is its class's;
// a block of the zeroed region (from the 201st calloc of 700 KiB to 1 MiB) its slots'; a
// foreign block's is the C library's answer.
TEST(usable_size, of_runs_fine_classes_the_zeroed_region_and_foreign_blocks) {
    for (size_t groups : {1, 152}) {
        void* block = malloc(groups == 1 ? 40000 : 10485760);
        uintptr_t offset = reinterpret_cast<uintptr_t>(block) - REGION_HINT - 0xE0000000;
        EXPECT_EQ(malloc_usable_size(block), groups * GROUP_BYTES - offset % GROUP_BYTES);
        free(block);
    }
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    void* block = malloc(10);
    EXPECT_EQ(malloc_usable_size(block), 12u);
    free(block);
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_COARSE);
    for (int i = 0; i < 200; ++i) free(calloc(1, 800000));
    block = calloc(1, 800000);
    EXPECT_LT(reinterpret_cast<uintptr_t>(block) - ZEROED_HINT, ZEROED_BYTES);
    EXPECT_EQ(malloc_usable_size(block), 13u * 65536);
    free(block);
    block = from_glibc<void*(size_t)>("malloc")(1000);
    EXPECT_EQ(malloc_usable_size(block), from_glibc<size_t(void*)>("malloc_usable_size")(block));
    EXPECT_EQ(malloc_usable_size(nullptr), 0u);
    free(block);
}

// Every alignment up to 64 bytes, every size up to a bucket's, under either routing.
TEST(aligned, heap_serves_every_alignment_up_to_64) {
    for (int routing : {TARNHEAP_ROUTING_COARSE, TARNHEAP_ROUTING_FINE}) {
        mallopt(TARNHEAP_M_ROUTING, routing);
        for (size_t alignment = 1; alignment <= 64; alignment *= 2) {
            for (size_t size = 0; size <= 3000; size += size < 300 ? 1 : 97) {
                void* block = memalign(alignment, size);
                ASSERT_TRUE(in_region(block)) << alignment << " " << size;
                ASSERT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u) << size;
                free(block);
            }
        }
    }
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_COARSE);
}

}  // namespace
