#pragma once

#include <cstdint>

#include "bucket/alloc_mode.h"

namespace tarnheap {

// What malloc does when its fast path misses: the small classes with refill, the bucket
// classes, runs of groups, then the last resorts (initialisation and a retry, the bootstrap
// arena while initialising, the fallback allocator). Null when everything failed.
void* malloc_slow(uint64_t size);

// The same for calloc, with the zeroed region for 700 KiB to 1 MiB; the block is zero.
void* calloc_slow(uint64_t count, uint64_t size);

// What malloc_slow does, in the given mode: resize allocates with MODE_RESIZE, so that the new
// block is neither touched nor offset in its run. `size` is not 0.
void* allocate_block(uint64_t size, alloc_mode mode);

// malloc_slow for a request of 257 to 35328 bytes whose class's head group has no free unit,
// as malloc's fast path found it: the same result without the steps that cannot serve it.
void* malloc_bucket_miss(unsigned bucket_class, uint64_t size);

// What a request gets when the heap could not serve it: initialisation and a new attempt, the
// bootstrap arena while initialising, the C runtime's allocator once ready or failed.
void* allocate_last_resort(uint64_t size, alloc_mode mode);

// A piece of the bootstrap arena for a request made while the heap initialises, or null when
// the arena cannot hold it.
void* bootstrap_alloc(uint64_t size);

}  // namespace tarnheap
