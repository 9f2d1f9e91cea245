// The allocators of the bucket area, used by the slow paths of malloc and calloc and by resize.
#pragma once

#include <cstdint>

#include "bucket/alloc_mode.h"

namespace tarnheap {

// A unit of the bucket class of `size` (at most 35328 bytes), from the class's groups or from a
// new group. Null when no group can be had, or before the heap is ready and no group exists.
void* bucket_alloc(uint64_t size, alloc_mode mode);

// The same once the head group of the request's class has been found without a free unit, as
// the fast paths find it: the class's list is walked, or a new group started.
void* bucket_alloc_after_miss(unsigned bucket_class, uint64_t size, alloc_mode mode);

// A block of `size` bytes (at most LARGE_MAX) in a run of whole groups. Null when no run can be
// had or the heap is not ready.
void* run_alloc(uint64_t size, alloc_mode mode);

// A calloc block of 716800 to 1048576 bytes from the zeroed region, handed out without zeroing
// (its slots are zero whenever free). Null sends the caller to the general path; the first
// 200 such requests of the process always get null.
void* zeroed_region_alloc(uint64_t total);

inline constexpr uint64_t ZEROED_MIN = 0xAF000;
inline constexpr uint64_t ZEROED_MAX = 0x100000;

}  // namespace tarnheap
