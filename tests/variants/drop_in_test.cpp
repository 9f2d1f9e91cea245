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
const entry via_reallocarray = [](size_t n, size_t size) { return reallocarray(nullptr, n, size); };
const entry via_aligned_alloc = [](size_t a, size_t size) { return aligned_alloc(a, size); };
const entry via_memalign = [](size_t a, size_t size) { return memalign(a, size); };
const entry via_valloc = [](size_t, size_t size) { return valloc(size); };
const entry via_pvalloc = [](size_t, size_t size) { return pvalloc(size); };

// posix_memalign as the other entries answer: the block, or null with the error in errno. It
// must leave errno, and on a refusal the result, as they were.
void* via_posix_memalign(size_t alignment, size_t size) {
    void* block = &errno;
    int saved_errno = errno, error = posix_memalign(&block, alignment, size);
    EXPECT_EQ(errno, saved_errno);
    EXPECT_TRUE(error == 0 || block == &errno);
    if (error != 0) errno = error;
    return error == 0 ? block : nullptr;
}

// Who serves a request, or the errno of its refusal.
enum answer { FROM_HEAP = -1, FROM_C_LIBRARY = -2 };

struct request_case {
    const char* name;
    entry call;
    size_t first, size;
    int answer;
    // malloc_usable_size of a heap block (0: at least the size); the entry's alignment
    size_t usable = 0, alignment = 1;
};

class request : public testing::TestWithParam<request_case> {};

// A block comes from the owner of its address, unique, aligned, usable as far as the heap
// says, and resizes with its bytes; errno is untouched. A refusal is null with its errno.
TEST_P(request, is_answered_as_a_glibc_program_expects) {
    const request_case& c = GetParam();
    errno = UNTOUCHED;
    auto* block = static_cast<unsigned char*>(c.call(c.first, c.size));
    EXPECT_EQ(block == nullptr, c.answer >= 0);
    EXPECT_EQ(errno, c.answer >= 0 ? c.answer : UNTOUCHED);
    if (block == nullptr) return;
    EXPECT_EQ(in_region(block), c.answer == FROM_HEAP);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % c.alignment, 0u);
    EXPECT_TRUE(c.usable == 0 || malloc_usable_size(block) == c.usable)
        << malloc_usable_size(block);
    size_t bytes = c.call == via_calloc || c.call == via_reallocarray ? c.first * c.size : c.size;
    EXPECT_GE(malloc_usable_size(block), bytes);
    std::memset(block, 7, bytes);
    block = static_cast<unsigned char*>(realloc(block, 2 * bytes + 100));
    ASSERT_NE(block, nullptr);
    for (size_t i = 0; i < bytes; ++i) ASSERT_EQ(block[i], 7) << i;
    free(block);
}

// One row per answer: the memalign sweep below covers the heap's aligned blocks further, the
// reallocarray test its refusal.
const request_case REQUESTS[] = {
    // Requests for nothing are served as requests for a byte (calloc's as 16 zeroed bytes).
    {"malloc_of_0", via_malloc, 0, 0, FROM_HEAP, 4},
    {"calloc_of_0_by_8", via_calloc, 0, 8, FROM_HEAP, 16},
    {"realloc_of_null_to_0", via_realloc, 0, 0, FROM_HEAP, 4},
    {"aligned_alloc_64_of_0", via_aligned_alloc, 64, 0, FROM_HEAP, 0, 64},
    // Usable sizes are the classes' and the units'.
    {"malloc_of_100_class_18", via_malloc, 0, 100, FROM_HEAP, 112},
    {"malloc_of_3000_bucket_45", via_malloc, 0, 3000, FROM_HEAP, 3072},
    {"reallocarray_of_null_10_by_30", via_reallocarray, 10, 30, FROM_HEAP, 320},
    // calloc refuses the products that would wrap: to 0 after rounding, to 100 (a small class
    // on the fast path), to 2^32 (the slow path).
    {"calloc_rounding_wraps", via_calloc, 1, SIZE_MAX - 14, ENOMEM},
    {"calloc_wraps_to_100", via_calloc, 4, (size_t{1} << 62) + 25, ENOMEM},
    {"calloc_wraps_to_2_pow_32", via_calloc, (size_t{1} << 32) + 1, size_t{1} << 32, ENOMEM},
    // The heap serves alignments its blocks already have; the C library the others.
    {"posix_memalign_32_of_100", via_posix_memalign, 32, 100, FROM_HEAP, 0, 32},
    {"posix_memalign_4096_of_10", via_posix_memalign, 4096, 10, FROM_C_LIBRARY, 0, 4096},
    {"aligned_alloc_256_of_1000", via_aligned_alloc, 256, 1000, FROM_C_LIBRARY, 0, 256},
    {"memalign_65536_of_100", via_memalign, 65536, 100, FROM_C_LIBRARY, 0, 65536},
    {"valloc_of_100", via_valloc, 0, 100, FROM_C_LIBRARY, 0, 4096},
    {"pvalloc_of_4097", via_pvalloc, 0, 4097, FROM_C_LIBRARY, 0, 4096},
    // posix_memalign wants a power of two and a multiple of a pointer; the others a power of two.
    {"posix_memalign_0", via_posix_memalign, 0, 8, EINVAL},
    {"posix_memalign_4", via_posix_memalign, 4, 8, EINVAL},
    {"posix_memalign_24", via_posix_memalign, 24, 8, EINVAL},
    {"aligned_alloc_0", via_aligned_alloc, 0, 8, EINVAL},
    {"memalign_96", via_memalign, 96, 8, EINVAL},
    {"posix_memalign_4096_of_too_much", via_posix_memalign, 4096, SIZE_MAX - 100, ENOMEM},
    {"aligned_alloc_64_of_too_much", via_aligned_alloc, 64, SIZE_MAX - 100, ENOMEM},
    {"memalign_4096_of_too_much", via_memalign, 4096, SIZE_MAX / 2, ENOMEM},
    {"valloc_of_too_much", via_valloc, 0, SIZE_MAX, ENOMEM},
};
INSTANTIATE_TEST_SUITE_P(entries, request, testing::ValuesIn(REQUESTS),
                         [](const auto& info) { return std::string(info.param.name); });

// Called through a pointer, so that the compiler does not take a refused call for a release.
void* (*volatile const refused_reallocarray)(void*, size_t, size_t) = reallocarray;

// A resize to nothing frees the block (the heap's is the next one handed out, a foreign one goes
// to the C library) and answers null with errno as it was; reallocarray refuses a product that
// overflows and keeps the block.
TEST(resize, to_nothing_frees_and_an_overflowing_product_keeps_the_block) {
    auto* block = static_cast<unsigned char*>(malloc(100));
    errno = UNTOUCHED;
    EXPECT_EQ(realloc(block, 0), nullptr);
    EXPECT_EQ(realloc(from_glibc<void*(size_t)>("malloc")(100), 0), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
    EXPECT_EQ(malloc(100), block);
    std::memset(block, 5, 100);
    EXPECT_EQ(refused_reallocarray(block, SIZE_MAX / 2, size_t{1} << 32 | 4), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    block = static_cast<unsigned char*>(reallocarray(block, 100, 30));
    EXPECT_EQ(malloc_usable_size(block), 3072u);
    EXPECT_EQ(block[99], 5);
    free(block);
}

// A large block's usable size runs to the end of its run; a block of the zeroed region (from the
// 201st calloc of 700 KiB to 1 MiB) its slots'; a foreign block's is the C library's answer.
TEST(usable_size, of_runs_the_zeroed_region_and_foreign_blocks) {
    ASSERT_EQ(mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE), TARNHEAP_PROBE_ANSWER)
        << "run with libtarnheap.so preloaded";
    void* block = malloc(10485760);  // a run of 152 groups
    uintptr_t offset = reinterpret_cast<uintptr_t>(block) - REGION_HINT - 0xE0000000;
    EXPECT_EQ(malloc_usable_size(block), 152 * GROUP_BYTES - offset % GROUP_BYTES);
    free(block);
    for (int i = 0; i < 200; ++i) free(calloc(1, 800000));
    block = calloc(1, 800000);
    EXPECT_EQ(malloc_usable_size(block), 13u * 65536);
    free(block);
    block = from_glibc<void*(size_t)>("malloc")(1000);
    EXPECT_EQ(malloc_usable_size(block), from_glibc<size_t(void*)>("malloc_usable_size")(block));
    EXPECT_EQ(malloc_usable_size(nullptr), 0u);
    free(block);
}

// Every alignment up to 64 bytes, every size up to a bucket's, under either routing, with room for
// the size.
TEST(aligned, heap_serves_every_alignment_up_to_64) {
    for (int routing : {TARNHEAP_ROUTING_FINE, TARNHEAP_ROUTING_COARSE}) {
        mallopt(TARNHEAP_M_ROUTING, routing);
        for (size_t alignment = 1; alignment <= 64; alignment *= 2)
            for (size_t size = 0; size <= 3000; size += size < 300 ? 1 : 97) {
                void* block = memalign(alignment, size);
                ASSERT_TRUE(in_region(block) && reinterpret_cast<uintptr_t>(block) % alignment == 0)
                    << alignment << " " << size;
                ASSERT_GE(malloc_usable_size(block), size) << alignment;
                free(block);
            }
    }
}

}  // namespace
