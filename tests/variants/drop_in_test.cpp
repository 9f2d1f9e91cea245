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

#include "tarnheap.h"

namespace {

constexpr uintptr_t REGION_HINT = 0x7f0000000000;
constexpr uintptr_t REGION_BYTES = 0x200000000;
constexpr uintptr_t BUCKET_AREA = REGION_HINT + 0xE0000000;
constexpr uintptr_t GROUP_BYTES = 70656;
constexpr uintptr_t ZEROED_REGION_HINT = 0x7ff000000000;
constexpr uintptr_t ZEROED_REGION_BYTES = 0x4000000;
constexpr int UNTOUCHED = 77;

bool in_region(const void* block) {
    return reinterpret_cast<uintptr_t>(block) - REGION_HINT < REGION_BYTES;
}

bool aligned_to(const void* block, size_t alignment) {
    return reinterpret_cast<uintptr_t>(block) % alignment == 0;
}

class preloaded_heap : public testing::Environment {
    void SetUp() override {
        ASSERT_EQ(mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE), TARNHEAP_PROBE_ANSWER)
            << "run with libtarnheap.so preloaded";
        void* block = malloc(100);
        ASSERT_TRUE(in_region(block)) << "the heap must run: its 8 GiB hint must be free";
        free(block);
    }
};
testing::Environment* const PRELOADED_HEAP = testing::AddGlobalTestEnvironment(new preloaded_heap);

// Every table's rows are named by their first field.
constexpr auto case_name = [](const auto& info) { return std::string(info.param.name); };

// glibc's own entries, for blocks the heap must treat as foreign.
struct c_library {
    void* (*malloc)(size_t);
    size_t (*malloc_usable_size)(void*);
};

c_library glibc() {
    void* libc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    return {reinterpret_cast<void* (*)(size_t)>(dlsym(libc, "malloc")),
            reinterpret_cast<size_t (*)(void*)>(dlsym(libc, "malloc_usable_size"))};
}

// An entry point, or a call of one, that takes a size alone.
using request = void* (*)(size_t);

struct zero_size_case {
    const char* name;
    request entry;
    size_t usable_size;  // of the block served as a request for a byte
    bool zeroed;
};

class zero_size : public testing::TestWithParam<zero_size_case> {};

TEST_P(zero_size, gets_a_unique_heap_block_and_leaves_errno) {
    errno = UNTOUCHED;
    void* first = GetParam().entry(0);
    void* second = GetParam().entry(0);
    EXPECT_EQ(errno, UNTOUCHED);
    ASSERT_TRUE(in_region(first) && in_region(second));
    EXPECT_NE(first, second);
    EXPECT_EQ(malloc_usable_size(first), GetParam().usable_size);
    if (GetParam().zeroed) {
        EXPECT_EQ(*static_cast<unsigned char*>(first), 0);
    }
    free(first);
    free(second);
}

INSTANTIATE_TEST_SUITE_P(
    entries, zero_size,
    testing::Values(
        zero_size_case{"malloc", [](size_t size) { return malloc(size); }, 4, false},
        zero_size_case{"calloc_zero_count", [](size_t size) { return calloc(size, 8); }, 16, true},
        zero_size_case{"calloc_zero_size", [](size_t size) { return calloc(8, size); }, 16, true},
        zero_size_case{"realloc_of_null", [](size_t size) { return realloc(nullptr, size); }, 4,
                       false},
        zero_size_case{"reallocarray_of_null",
                       [](size_t size) { return reallocarray(nullptr, size, 8); }, 4, false},
        zero_size_case{"aligned_alloc", [](size_t size) { return aligned_alloc(64, size); }, 64,
                       false}),
    case_name);

struct release_case {
    const char* name;
    size_t size;
};

class realloc_to_nothing : public testing::TestWithParam<release_case> {};

// glibc's answer: the block is freed, the result is null, errno stays.
TEST_P(realloc_to_nothing, frees_and_returns_null_with_errno_untouched) {
    void* block = malloc(GetParam().size);
    errno = UNTOUCHED;
    EXPECT_EQ(realloc(block, 0), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
    // Freed blocks of a small class or a bucket group are the next ones handed out.
    void* again = malloc(GetParam().size);
    EXPECT_EQ(again, block);
    free(again);
}

INSTANTIATE_TEST_SUITE_P(blocks, realloc_to_nothing,
                         testing::Values(release_case{"small", 100}, release_case{"bucket", 3000}),
                         case_name);

TEST(realloc_to_nothing, hands_a_foreign_block_to_the_c_library) {
    void* block = glibc().malloc(100);
    errno = UNTOUCHED;
    EXPECT_EQ(realloc(block, 0), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
}

struct overflow_case {
    const char* name;
    size_t count;
    size_t size;
};

class calloc_overflow : public testing::TestWithParam<overflow_case> {};

TEST_P(calloc_overflow, is_refused_with_enomem) {
    errno = 0;
    EXPECT_EQ(calloc(GetParam().count, GetParam().size), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}

// The wrapped values the heap would otherwise serve: 0 after rounding, 100 (a small class on
// the fast path), 2^32 (the slow path), 1.
INSTANTIATE_TEST_SUITE_P(products, calloc_overflow,
                         testing::Values(overflow_case{"rounding_wraps", 1, SIZE_MAX - 14},
                                         overflow_case{"half_by_4", SIZE_MAX / 2, 4},
                                         overflow_case{"wraps_to_100", 4, (size_t{1} << 62) + 25},
                                         overflow_case{"wraps_to_0", size_t{1} << 63, 2},
                                         overflow_case{"wraps_to_2_pow_32", (size_t{1} << 32) + 1,
                                                       size_t{1} << 32},
                                         overflow_case{"max_by_max", SIZE_MAX, SIZE_MAX}),
                         case_name);

TEST(calloc_overflow, leaves_products_that_fit_to_the_heap) {
    auto* block = static_cast<unsigned char*>(calloc(size_t{1} << 20, 1));
    ASSERT_TRUE(in_region(block));
    EXPECT_EQ(block[(size_t{1} << 20) - 1], 0);
    free(block);
}

// The usable size of a large block: to the end of its run of groups.
size_t to_end_of_run(const void* block, size_t groups) {
    uintptr_t offset = reinterpret_cast<uintptr_t>(block) - BUCKET_AREA;
    return groups * GROUP_BYTES - offset % GROUP_BYTES;
}

struct usable_size_case {
    const char* name;
    size_t size;
    size_t usable_size;  // 0: a large block, to the end of its run
    size_t run_groups;
};

class usable_size : public testing::TestWithParam<usable_size_case> {};

TEST_P(usable_size, is_the_size_of_the_heap_block) {
    void* block = malloc(GetParam().size);
    ASSERT_TRUE(in_region(block));
    size_t expected = GetParam().usable_size != 0 ? GetParam().usable_size
                                                  : to_end_of_run(block, GetParam().run_groups);
    EXPECT_EQ(malloc_usable_size(block), expected);
    std::memset(block, 1, expected);
    free(block);
}

INSTANTIATE_TEST_SUITE_P(blocks, usable_size,
                         testing::Values(usable_size_case{"class_0", 3, 4, 0},
                                         usable_size_case{"class_1", 5, 8, 0},
                                         usable_size_case{"class_18", 100, 112, 0},
                                         usable_size_case{"class_27", 256, 256, 0},
                                         usable_size_case{"bucket_5", 300, 320, 0},
                                         usable_size_case{"bucket_45", 3000, 3072, 0},
                                         usable_size_case{"bucket_66", 30000, 35328, 0},
                                         usable_size_case{"run_of_1", 40000, 0, 1},
                                         usable_size_case{"run_of_152", 10485760, 0, 152}),
                         case_name);

TEST(usable_size, of_a_fine_routed_block_is_its_class_size) {
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_FINE);
    void* block = malloc(10);
    EXPECT_EQ(malloc_usable_size(block), 12u);
    free(block);
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_COARSE);
}

// From the 201st calloc of 700 KiB to 1 MiB on, such blocks come from the zeroed region.
TEST(usable_size, of_a_zeroed_region_block_is_its_slots) {
    void* block = nullptr;
    for (int i = 0; i <= 200; ++i) {
        free(block);
        block = calloc(1, 800000);
    }
    ASSERT_LT(reinterpret_cast<uintptr_t>(block) - ZEROED_REGION_HINT, ZEROED_REGION_BYTES);
    EXPECT_EQ(malloc_usable_size(block), 13u * 65536);
    free(block);
}

TEST(usable_size, of_a_foreign_block_is_the_c_library_answer) {
    void* block = glibc().malloc(1000);
    EXPECT_EQ(malloc_usable_size(block), glibc().malloc_usable_size(block));
    EXPECT_GE(malloc_usable_size(block), 1000u);
    EXPECT_EQ(malloc_usable_size(nullptr), 0u);
    free(block);
}

using aligned_entry = void* (*)(size_t alignment, size_t size);

// posix_memalign as the other aligned entries answer: the block, or null with the error in errno.
// It must leave errno, and on a refusal the result, as they were.
void* through_posix_memalign(size_t alignment, size_t size) {
    void* block = &errno;
    int saved_errno = errno;
    int error = posix_memalign(&block, alignment, size);
    EXPECT_EQ(errno, saved_errno);
    if (error == 0) return block;
    EXPECT_EQ(block, &errno);
    errno = error;
    return nullptr;
}

void* through_valloc(size_t, size_t size) {
    return valloc(size);
}

void* through_pvalloc(size_t, size_t size) {
    return pvalloc(size);
}

// Who serves a request, or the errno of its refusal.
enum answer { FROM_HEAP = -1, FROM_C_LIBRARY = -2 };

struct aligned_case {
    const char* name;
    aligned_entry entry;
    size_t alignment;
    size_t size;
    int answer;
};

class aligned : public testing::TestWithParam<aligned_case> {};

TEST_P(aligned, is_served_whole_by_the_owner_of_its_address) {
    const aligned_case& c = GetParam();
    errno = UNTOUCHED;
    auto* block = static_cast<unsigned char*>(c.entry(c.alignment, c.size));
    EXPECT_EQ(errno, UNTOUCHED);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(aligned_to(block, c.alignment));
    EXPECT_EQ(in_region(block), c.answer == FROM_HEAP);
    EXPECT_GE(malloc_usable_size(block), c.size);
    std::memset(block, 7, c.size);
    block = static_cast<unsigned char*>(realloc(block, 2 * c.size + 100));
    ASSERT_NE(block, nullptr);
    for (size_t i = 0; i < c.size; ++i) ASSERT_EQ(block[i], 7) << i;
    free(block);
}

INSTANTIATE_TEST_SUITE_P(
    requests, aligned,
    testing::Values(
        aligned_case{"posix_memalign_8_of_1", through_posix_memalign, 8, 1, FROM_HEAP},
        aligned_case{"posix_memalign_16_of_0", through_posix_memalign, 16, 0, FROM_HEAP},
        aligned_case{"posix_memalign_32_of_100", through_posix_memalign, 32, 100, FROM_HEAP},
        aligned_case{"posix_memalign_64_of_3000", through_posix_memalign, 64, 3000, FROM_HEAP},
        aligned_case{"posix_memalign_64_of_100000", through_posix_memalign, 64, 100000, FROM_HEAP},
        aligned_case{"posix_memalign_128_of_100", through_posix_memalign, 128, 100, FROM_C_LIBRARY},
        aligned_case{"posix_memalign_4096_of_10", through_posix_memalign, 4096, 10, FROM_C_LIBRARY},
        aligned_case{"aligned_alloc_1_of_5", aligned_alloc, 1, 5, FROM_HEAP},
        aligned_case{"aligned_alloc_32_of_48", aligned_alloc, 32, 48, FROM_HEAP},
        aligned_case{"aligned_alloc_64_of_64", aligned_alloc, 64, 64, FROM_HEAP},
        aligned_case{"aligned_alloc_256_of_1000", aligned_alloc, 256, 1000, FROM_C_LIBRARY},
        aligned_case{"memalign_2_of_3", memalign, 2, 3, FROM_HEAP},
        aligned_case{"memalign_64_of_200", memalign, 64, 200, FROM_HEAP},
        aligned_case{"memalign_65536_of_100", memalign, 65536, 100, FROM_C_LIBRARY},
        aligned_case{"valloc_of_100", through_valloc, 4096, 100, FROM_C_LIBRARY},
        aligned_case{"pvalloc_of_4097", through_pvalloc, 4096, 4097, FROM_C_LIBRARY}),
    case_name);

// Every alignment up to 64 bytes, every size up to a bucket's, under either routing.
TEST(aligned, heap_serves_every_alignment_up_to_64) {
    for (int routing : {TARNHEAP_ROUTING_COARSE, TARNHEAP_ROUTING_FINE}) {
        mallopt(TARNHEAP_M_ROUTING, routing);
        for (size_t alignment = 1; alignment <= 64; alignment *= 2) {
            for (size_t size = 0; size <= 3000; size += size < 300 ? 1 : 97) {
                void* block = memalign(alignment, size);
                ASSERT_TRUE(in_region(block)) << alignment << " " << size;
                ASSERT_TRUE(aligned_to(block, alignment)) << alignment << " " << size;
                free(block);
            }
        }
    }
    mallopt(TARNHEAP_M_ROUTING, TARNHEAP_ROUTING_COARSE);
}

class aligned_refusal : public testing::TestWithParam<aligned_case> {};

TEST_P(aligned_refusal, answers_null_and_the_error) {
    errno = 0;
    EXPECT_EQ(GetParam().entry(GetParam().alignment, GetParam().size), nullptr);
    EXPECT_EQ(errno, GetParam().answer);
}

INSTANTIATE_TEST_SUITE_P(
    requests, aligned_refusal,
    testing::Values(aligned_case{"posix_memalign_0", through_posix_memalign, 0, 8, EINVAL},
                    aligned_case{"posix_memalign_4", through_posix_memalign, 4, 8, EINVAL},
                    aligned_case{"posix_memalign_24", through_posix_memalign, 24, 8, EINVAL},
                    aligned_case{"aligned_alloc_0", aligned_alloc, 0, 8, EINVAL},
                    aligned_case{"aligned_alloc_3", aligned_alloc, 3, 8, EINVAL},
                    aligned_case{"aligned_alloc_24", aligned_alloc, 24, 8, EINVAL},
                    aligned_case{"memalign_0", memalign, 0, 8, EINVAL},
                    aligned_case{"memalign_96", memalign, 96, 8, EINVAL},
                    aligned_case{"posix_memalign_64_of_too_much", through_posix_memalign, 64,
                                 SIZE_MAX - 100, ENOMEM},
                    aligned_case{"posix_memalign_4096_of_too_much", through_posix_memalign, 4096,
                                 SIZE_MAX - 100, ENOMEM},
                    aligned_case{"aligned_alloc_64_of_too_much", aligned_alloc, 64, SIZE_MAX - 100,
                                 ENOMEM},
                    aligned_case{"memalign_4096_of_too_much", memalign, 4096, SIZE_MAX / 2, ENOMEM},
                    aligned_case{"valloc_of_too_much", through_valloc, 0, SIZE_MAX, ENOMEM}),
    case_name);

// Called through a pointer, so that the compiler does not take a refused call for a release.
void* (*volatile const refused_reallocarray)(void*, size_t, size_t) = reallocarray;

TEST(reallocarray, refuses_a_product_that_overflows_and_keeps_the_block) {
    auto* block = static_cast<unsigned char*>(malloc(100));
    std::memset(block, 5, 100);
    for (size_t count : {SIZE_MAX / 2, size_t{1} << 32}) {
        errno = 0;
        EXPECT_EQ(refused_reallocarray(block, count, size_t{1} << 32 | 4), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_EQ(block[99], 5);
    free(block);
}

TEST(reallocarray, resizes_by_the_product) {
    auto* block = static_cast<unsigned char*>(reallocarray(nullptr, 10, 30));
    ASSERT_TRUE(in_region(block));
    EXPECT_EQ(malloc_usable_size(block), 320u);
    std::memset(block, 9, 300);
    block = static_cast<unsigned char*>(reallocarray(block, 100, 30));
    ASSERT_TRUE(in_region(block));
    EXPECT_EQ(malloc_usable_size(block), 3072u);
    EXPECT_EQ(block[299], 9);
    errno = UNTOUCHED;
    EXPECT_EQ(reallocarray(block, 0, 30), nullptr);
    EXPECT_EQ(errno, UNTOUCHED);
}

}  // namespace
