#include "bucket/commit_groups.h"

#include "platform/commit.h"
#include "state/heap_state.h"

namespace tarnheap {

static_assert(LAST_COMMIT_CHUNK + 1 == COMMIT_CHUNK_COUNT);

void commit_chunks(uint32_t first_chunk, uint32_t last_chunk) {
    for (uint32_t chunk = first_chunk; chunk <= last_chunk; ++chunk) {
        if (heap_state.chunk_committed[chunk] != 0) continue;
        uint64_t length = chunk < LAST_COMMIT_CHUNK ? COMMIT_CHUNK_BYTES : LAST_COMMIT_CHUNK_BYTES;
        commit_range(heap_state.bucket_area_base + chunk * COMMIT_CHUNK_BYTES, length);
        heap_state.chunk_committed[chunk] = 1;
    }
}

}  // namespace tarnheap
