// Stand-ins until the bucket area's allocators land.
#include "bucket/bucket_alloc.h"
#include "bucket/bucket_class.h"
#include "bucket/bucket_release.h"

namespace tarnheap {

unsigned bucket_class_of(uint64_t size) { return static_cast<unsigned>((size + 63) >> 6); }
void* bucket_alloc(uint64_t, alloc_mode) { return nullptr; }
void* run_alloc(uint64_t, alloc_mode) { return nullptr; }
void* zeroed_region_alloc(uint64_t) { return nullptr; }
void release_unit(uint32_t, uint64_t) {}
void release_large_run(uint32_t) {}
void release_zeroed_block(uint64_t, uint64_t) {}

}  // namespace tarnheap
