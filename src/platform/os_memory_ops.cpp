#include "platform/os_memory_ops.h"

#include <cstring>

#include "platform/platform.h"
#include "state/heap_state.h"

namespace tarnheap {
namespace {

constexpr uint32_t RESERVE_FAILED = 1;
constexpr uint32_t RELEASE_FAILED = 4;

uint32_t store_argument(void* context, void** word) {
    *word = context;
    return 0;
}

uint32_t no_op(void*) {
    return 0;
}

uint32_t reserve(void* context, uint64_t size, uint64_t, uint64_t* address) {
    auto* params = static_cast<os_memory_params_record*>(context);
    void* got = os_virtual_alloc(reinterpret_cast<void*>(*address), size, params->allocation_type,
                                 params->protection);
    if (got == nullptr) return RESERVE_FAILED;
    *address = reinterpret_cast<uint64_t>(got);
    return 0;
}

// The size is not passed on: a release always gives up the whole reservation.
uint32_t release(void*, uint64_t address, uint64_t) {
    return os_virtual_free(reinterpret_cast<void*>(address), 0, MEMORY_RELEASE) ? 0
                                                                                : RELEASE_FAILED;
}

uint32_t zero_range(void*, uint64_t address, uint64_t length) {
    std::memset(reinterpret_cast<void*>(address), 0, length);
    return 0;
}

bool aligned(uint64_t address, uint64_t alignment) {
    return (address & (alignment - 1)) == 0;
}

}  // namespace

constinit const os_memory_ops_record os_memory_ops{nullptr, store_argument, no_op, reserve,
                                                   release, zero_range,     no_op, nullptr};

constinit os_memory_params_record os_memory_params{PAGE_READ_WRITE, MEMORY_RESERVE};

// Three attempts: at the hint, at the next aligned address above where the hint landed, then
// anywhere with room to trim. The trim releases the head with the size of the head only, but a
// release gives up the whole reservation, so the trimmed range is left unreserved; callers get
// an address all the same. This is the behaviour the heap has always had and is kept.
uint64_t reserve_aligned(uint64_t hint, uint64_t* size, uint64_t alignment) {
    os_memory_ops_record& ops = *heap_state.memory_ops;
    uint64_t wanted = (*size + alignment - 1) & (0 - alignment);
    uint64_t address = hint;
    if (ops.reserve(ops.context, wanted, alignment, &address) != 0) return 0;
    if (!aligned(address, alignment)) {
        ops.release(ops.context, address, wanted);
        address += alignment - (address & (alignment - 1));
        if (ops.reserve(ops.context, wanted, alignment, &address) != 0) return 0;
    }
    if (aligned(address, alignment)) {
        *size = wanted;
        return address;
    }
    ops.release(ops.context, address, wanted);
    address = 0;
    if (ops.reserve(ops.context, wanted + alignment, alignment, &address) != 0) return 0;
    if (aligned(address, alignment)) {
        *size = wanted + alignment;
        return address;
    }
    uint64_t tail = address & (alignment - 1);
    uint64_t head = alignment - tail;
    ops.release(ops.context, address, head);
    ops.release(ops.context, address + head + wanted, tail);
    *size = wanted;
    return address + head;
}

}  // namespace tarnheap
