#include "bucket/commit_groups.h"

#include "platform/commit.h"
#include "state/heap_state.h"

namespace tarnheap {

static_assert(LAST_COMMIT_CHUNK + 1 == COMMIT_CHUNK_COUNT);

void commit_groups(uint32_t first, uint32_t count) {
    // Signed: the last group of an empty run at group 0 stays inside the chunk array.
    int32_t first_chunk = static_cast<int32_t>(first) / static_cast<int32_t>(COMMIT_CHUNK_GROUPS);
    int32_t last_chunk =
        static_cast<int32_t>(first + count - 1) / static_cast<int32_t>(COMMIT_CHUNK_GROUPS);
    for (int32_t chunk = first_chunk; chunk <= last_chunk; ++chunk) {
        if (heap_state.chunk_committed[chunk] != 0) continue;
        uint64_t length = chunk < static_cast<int32_t>(LAST_COMMIT_CHUNK) ? COMMIT_CHUNK_BYTES
                                                                          : LAST_COMMIT_CHUNK_BYTES;
        commit_range(heap_state.bucket_area_base + chunk * COMMIT_CHUNK_BYTES, length);
        heap_state.chunk_committed[chunk] = 1;
    }
}

}  // namespace tarnheap
