// The record of memory operations through which the region is reserved and released, and the
// aligned reservation built on it.
#pragma once

#include <cstdint>

namespace tarnheap {

// Every operation takes the record's context word first and returns 0 on success.
struct os_memory_ops_record {
    void* empty;  // slot 0: never called
    uint32_t (*store_argument)(void* context, void** word);
    uint32_t (*no_op)(void* context);
    // *address in: the wanted base or 0; out, on success: the base obtained. 1 on failure.
    uint32_t (*reserve)(void* context, uint64_t size, uint64_t alignment, uint64_t* address);
    // Gives up the whole reservation that begins at `address`, whatever `size` says. 4 on failure.
    uint32_t (*release)(void* context, uint64_t address, uint64_t size);
    uint32_t (*zero_range)(void* context, uint64_t address, uint64_t length);
    uint32_t (*no_op_last)(void* context);
    void* context;
};

// What `reserve` passes to the platform: read-write protection, reservation without commit.
struct os_memory_params_record {
    uint32_t protection;
    uint32_t allocation_type;
};

// The static defaults; initialisation copies the slots into the state's working copy.
extern const os_memory_ops_record os_memory_ops;
extern os_memory_params_record os_memory_params;

// Reserves *size bytes aligned to `alignment` (a power of two), first at `hint`; stores the size
// reserved. Returns the base or 0. Goes through the state's working copy of the operations.
uint64_t reserve_aligned(uint64_t hint, uint64_t* size, uint64_t alignment);

}  // namespace tarnheap
