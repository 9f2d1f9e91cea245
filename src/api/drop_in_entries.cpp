// The rest of the C library's allocation interface, exported by the Linux drop-in only: the
// aligned allocators, reallocarray and malloc_usable_size.
//
// Which allocator owns a block must still follow from its address, so each aligned request is
// served whole by the heap or whole by the C library. The rule: an alignment of up to 64 bytes
// goes to the heap, asked for the size rounded up to a multiple of the alignment and of 16; the
// block it hands out for such a size is aligned (below). Every other alignment goes to the C
// library's posix_memalign, as do valloc and pvalloc, and so does a request whose block turns out
// not to be aligned, because it came from the C library's malloc (the heap is not running or has
// no room) or from the bootstrap arena: that block is given back first.
#include <malloc.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "api/entry_names.h"
#include "api/out_of_memory.h"
#include "bucket/bucket_size_table.h"
#include "checked/hand_out_checks.h"
#include "platform/drop_in_fallbacks.h"
#include "small/small_class_table.h"
#include "small/usable_size.h"
#include "state/initialise.h"

static_assert(tarnheap::LINUX_DROP_IN, "only the Linux drop-in exports these names");

namespace tarnheap {
namespace {

constexpr uint64_t HEAP_ALIGNMENT_MAX = 64;
constexpr uint64_t ALIGNED_SIZE_STEP = 16;

// Small blocks start a multiple of their size after their class's first block, which
// initialisation puts on a 64-byte boundary, and bucket units a multiple of theirs after the base
// of their group, which lies on one; so such a block is aligned to the largest power of two that
// divides its size, up to 64. Large blocks start at a group base plus a multiple of 64. A request
// of a multiple of 16 bytes gets a block of exactly that size under either routing up to 256
// bytes, and one of a multiple of 64 bytes above.
constexpr bool serves_multiples_of_16_exactly(const route_table& routes) {
    for (uint64_t size = ALIGNED_SIZE_STEP; size <= SMALL_MAX; size += ALIGNED_SIZE_STEP) {
        unsigned small_class = size <= 64 ? routes.route[size / 4 - 1] : medium_small_class(size);
        if (small_block_bytes(small_class) != size) return false;
    }
    return true;
}
static_assert(serves_multiples_of_16_exactly(COARSE_ROUTES));
static_assert(serves_multiples_of_16_exactly(FINE_ROUTES));
static_assert([] {
    for (uint32_t bytes : BUCKET_SIZE_TABLE.bytes)
        if (bytes % HEAP_ALIGNMENT_MAX != 0) return false;
    return GROUP_BYTES % HEAP_ALIGNMENT_MAX == 0 && BUCKET_AREA_OFFSET % HEAP_ALIGNMENT_MAX == 0;
}());

// The C library's entries are loaded with the heap's fallbacks: a request that goes there
// before any other starts the heap.
const drop_in_fallbacks_record& c_library() {
    if (heap_state.init_state == INIT_NONE) heap_initialise();
    return drop_in_fallbacks;
}

// A block of at least `size` bytes on a multiple of `alignment`, a power of two; null when
// memory ran out.
void* aligned_block(size_t alignment, size_t size) {
    if (alignment <= HEAP_ALIGNMENT_MAX && size <= LARGE_MAX) {
        uint64_t step = alignment > ALIGNED_SIZE_STEP ? alignment : ALIGNED_SIZE_STEP;
        uint64_t request = size == 0 ? step : (size + step - 1) & ~(step - 1);
        void* block = malloc(request);
        if (block == nullptr || (reinterpret_cast<uint64_t>(block) & (alignment - 1)) == 0)
            return block;
        free(block);
    }
    auto c_library_aligned = c_library().posix_memalign;
    void* block;
    if (c_library_aligned == nullptr ||
        c_library_aligned(&block, alignment < sizeof(void*) ? sizeof(void*) : alignment, size) != 0)
        return nullptr;
    return block;
}

// aligned_alloc and memalign: errno EINVAL for an alignment that is not a power of two, ENOMEM
// when memory ran out.
void* aligned_block_or_error(size_t alignment, size_t size) {
    if (!std::has_single_bit(alignment)) {
        errno = EINVAL;
        return nullptr;
    }
    void* block = aligned_block(alignment, size);
    return block != nullptr ? block : out_of_memory();
}

void* page_block(void* (*c_library_entry)(size_t), size_t size) {
    return c_library_entry != nullptr ? c_library_entry(size) : out_of_memory();
}

}  // namespace
}  // namespace tarnheap

using namespace tarnheap;

// Never sets errno: the result says what went wrong.
extern "C" TARNHEAP_PUBLIC int posix_memalign(void** result, size_t alignment,
                                              size_t size) noexcept {
    if (!std::has_single_bit(alignment) || alignment % sizeof(void*) != 0) return EINVAL;
    int saved_errno = errno;
    void* block = aligned_block(alignment, size);
    errno = saved_errno;
    if (block == nullptr) return ENOMEM;
    *result = block;
    return 0;
}

extern "C" TARNHEAP_PUBLIC void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return aligned_block_or_error(alignment, size);
}

extern "C" TARNHEAP_PUBLIC void* memalign(size_t alignment, size_t size) noexcept {
    return aligned_block_or_error(alignment, size);
}

extern "C" TARNHEAP_PUBLIC void* valloc(size_t size) noexcept {
    return page_block(c_library().valloc, size);
}

extern "C" TARNHEAP_PUBLIC void* pvalloc(size_t size) noexcept {
    return page_block(c_library().pvalloc, size);
}

extern "C" TARNHEAP_PUBLIC void* reallocarray(void* block, size_t count, size_t size) noexcept {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) return out_of_memory();
    return realloc(block, bytes);
}

// Blocks the heap does not own are the C library's.
extern "C" TARNHEAP_PUBLIC size_t malloc_usable_size(void* block) noexcept {
    if (block == nullptr) return 0;
    if (uint64_t size = usable_size(reinterpret_cast<uint64_t>(block))) {
        // The checked build guards the bytes past those asked for; a program that asks may use
        // them all.
        if constexpr (CHECKED) widen_to_usable_size(reinterpret_cast<uint64_t>(block));
        return size;
    }
    auto c_library_usable_size = c_library().malloc_usable_size;
    return c_library_usable_size != nullptr ? c_library_usable_size(block) : 0;
}
