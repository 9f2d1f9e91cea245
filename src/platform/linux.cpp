// The Linux port of the platform operations. It reproduces exactly the Windows behaviour the
// heap relies on: reservations that land where asked or fail, 64 KiB granularity, commits only
// inside reservations, releases only of whole reservations by their base address.
#include <dlfcn.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>

#include "platform/drop_in_fallbacks.h"
#include "platform/platform.h"
#include "state/heap_state.h"

namespace tarnheap {
namespace {

constexpr uint32_t ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr uint32_t ERROR_INVALID_PARAMETER = 87;
constexpr uint32_t ERROR_INVALID_ADDRESS = 487;
constexpr uint64_t PAGE_BYTES = 0x1000;
constexpr uint64_t ALLOCATION_GRANULARITY = 0x10000;
// The heap holds at most two reservations (its region and the zeroed region of calloc), plus
// the transient ones of an aligned reservation; tests add a few of their own.
constexpr unsigned RESERVATION_SLOTS = 64;

struct reservation {
    uint64_t base;
    uint64_t size;
};

// Static, like the rest of the heap: the emulation must not allocate.
constinit reservation reservations[RESERVATION_SLOTS]{};
constinit uint32_t last_error = 0;

uint64_t round_up(uint64_t value, uint64_t unit) {
    return (value + unit - 1) & ~(unit - 1);
}

void* fail(uint32_t error) {
    last_error = error;
    return nullptr;
}

reservation* free_slot() {
    for (reservation& slot : reservations)
        if (slot.size == 0) return &slot;
    return nullptr;
}

reservation* reservation_holding(uint64_t first, uint64_t end) {
    for (reservation& slot : reservations)
        if (slot.size != 0 && first >= slot.base && end <= slot.base + slot.size) return &slot;
    return nullptr;
}

constexpr int RESERVE_FLAGS = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

void* reserve_exactly(uint64_t base, uint64_t size) {
    void* got = mmap(reinterpret_cast<void*>(base), size, PROT_NONE,
                     RESERVE_FLAGS | MAP_FIXED_NOREPLACE, -1, 0);
    if (got == MAP_FAILED) return nullptr;
    // Kernels before 4.17 take the flag as a mere hint and may place the mapping elsewhere.
    if (reinterpret_cast<uint64_t>(got) != base) {
        munmap(got, size);
        return nullptr;
    }
    return got;
}

// Anywhere, on a 64 KiB boundary as Windows places reservations: over-reserve, then trim.
void* reserve_anywhere(uint64_t size) {
    uint64_t padded = size + ALLOCATION_GRANULARITY;
    void* got = mmap(nullptr, padded, PROT_NONE, RESERVE_FLAGS, -1, 0);
    if (got == MAP_FAILED) return nullptr;
    uint64_t raw = reinterpret_cast<uint64_t>(got);
    uint64_t base = round_up(raw, ALLOCATION_GRANULARITY);
    if (base > raw) munmap(got, base - raw);
    if (raw + padded > base + size)
        munmap(reinterpret_cast<void*>(base + size), raw + padded - base - size);
    return reinterpret_cast<void*>(base);
}

void* reserve(uint64_t address, uint64_t size) {
    reservation* slot = free_slot();
    if (slot == nullptr) return fail(ERROR_NOT_ENOUGH_MEMORY);
    size = round_up(size, PAGE_BYTES);
    uint64_t base = address & ~(ALLOCATION_GRANULARITY - 1);
    void* got = base != 0 ? reserve_exactly(base, size) : reserve_anywhere(size);
    if (got == nullptr) return fail(base != 0 ? ERROR_INVALID_ADDRESS : ERROR_NOT_ENOUGH_MEMORY);
    *slot = {reinterpret_cast<uint64_t>(got), size};
    return got;
}

void* commit(uint64_t address, uint64_t size) {
    uint64_t first = address & ~(PAGE_BYTES - 1);
    uint64_t end = round_up(address + size, PAGE_BYTES);
    if (address == 0 || size == 0 || reservation_holding(first, end) == nullptr)
        return fail(ERROR_INVALID_ADDRESS);
    if (mprotect(reinterpret_cast<void*>(first), end - first, PROT_READ | PROT_WRITE) != 0)
        return fail(ERROR_NOT_ENOUGH_MEMORY);
    return reinterpret_cast<void*>(first);
}

}  // namespace

void* platform_virtual_alloc(void* address, uint64_t size, uint32_t type, uint32_t protection) {
    uint64_t wanted = reinterpret_cast<uint64_t>(address);
    if (protection != PAGE_READ_WRITE || size == 0) return fail(ERROR_INVALID_PARAMETER);
    if (type == MEMORY_RESERVE) return reserve(wanted, size);
    if (type == MEMORY_COMMIT) return commit(wanted, size);
    if (type == (MEMORY_RESERVE | MEMORY_COMMIT)) {
        void* base = reserve(wanted, size);
        return base != nullptr ? commit(reinterpret_cast<uint64_t>(base), size) : nullptr;
    }
    return fail(ERROR_INVALID_PARAMETER);
}

bool platform_virtual_free(void* address, uint64_t size, uint32_t type) {
    if (type != MEMORY_RELEASE || size != 0) return fail(ERROR_INVALID_PARAMETER) != nullptr;
    uint64_t base = reinterpret_cast<uint64_t>(address);
    for (reservation& slot : reservations) {
        if (slot.size != 0 && slot.base == base) {
            munmap(address, slot.size);
            slot = {};
            return true;
        }
    }
    return fail(ERROR_INVALID_ADDRESS) != nullptr;
}

uint32_t platform_last_error() {
    return last_error;
}

void print_to_standard_error(const char* format, va_list arguments) {
    std::vfprintf(stderr, format, arguments);
}

constinit drop_in_fallbacks_record drop_in_fallbacks{};

namespace {

// This library's own names shadow the C library's: take the next ones in search order.
template <typename entry_type>
void load_next(entry_type& entry, const char* name) {
    entry = reinterpret_cast<entry_type>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void load_fallbacks() {
    if constexpr (PREFIXED_ENTRIES) {
        heap_state.fallback_free = &::free;
        heap_state.fallback_malloc = &::malloc;
        heap_state.fallback_calloc = &::calloc;
        heap_state.fallback_realloc = &::realloc;
    } else {
        load_next(heap_state.fallback_free, "free");
        load_next(heap_state.fallback_malloc, "malloc");
        load_next(heap_state.fallback_calloc, "calloc");
        load_next(heap_state.fallback_realloc, "realloc");
    }
    if constexpr (LINUX_DROP_IN) {
        load_next(drop_in_fallbacks.malloc_usable_size, "malloc_usable_size");
        load_next(drop_in_fallbacks.posix_memalign, "posix_memalign");
        load_next(drop_in_fallbacks.valloc, "valloc");
        load_next(drop_in_fallbacks.pvalloc, "pvalloc");
    }
}

}  // namespace tarnheap
