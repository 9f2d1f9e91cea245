// Overrides of the platform operations, consulted only by builds with test seams, so that tests
// can make commits and reservations fail or watch them.
#pragma once

#include <cstdint>

namespace tarnheap {

struct platform_seams_record {
    void* (*virtual_alloc)(void* address, uint64_t size, uint32_t type, uint32_t protection);
    bool (*virtual_free)(void* address, uint64_t size, uint32_t type);
    uint32_t (*last_error)();
};

extern platform_seams_record platform_seams;

}  // namespace tarnheap
