// The lazy commit of the bucket area, in nine large chunks.
#pragma once

#include <cstdint>

#include "state/compiler.h"
#include "state/heap_state.h"

namespace tarnheap {

// Chunks of 7600 groups (about 512 MiB) keep the commits to nine for the life of the process.
inline constexpr uint32_t COMMIT_CHUNK_GROUPS = 7600;
inline constexpr uint64_t COMMIT_CHUNK_BYTES = COMMIT_CHUNK_GROUPS * GROUP_BYTES;
// The last chunk runs to the end of the reservation, past the last group.
inline constexpr uint64_t LAST_COMMIT_CHUNK_BYTES = 0x1FF20000;
inline constexpr unsigned LAST_COMMIT_CHUNK = 8;
static_assert(COMMIT_CHUNK_BYTES == 0x2001C000);
static_assert(LAST_COMMIT_CHUNK * COMMIT_CHUNK_GROUPS < GROUP_COUNT &&
              (LAST_COMMIT_CHUNK + 1) * COMMIT_CHUNK_GROUPS >= GROUP_COUNT);
static_assert(BUCKET_AREA_OFFSET + LAST_COMMIT_CHUNK * COMMIT_CHUNK_BYTES +
                  LAST_COMMIT_CHUNK_BYTES ==
              REGION_BYTES);

// Commits the chunks first_chunk .. last_chunk that are not committed yet. A chunk is committed
// once: a failed commit is reported, marked done like a successful one and never retried.
void commit_chunks(uint32_t first_chunk, uint32_t last_chunk);

// Whether the memory of groups first .. first + count - 1 (count at least 1) is committed for
// sure. Almost always both ends' chunks are done already, which one test of two flags tells for
// any run shorter than a chunk.
TARNHEAP_HOT bool groups_committed(uint32_t first, uint32_t count) {
    return count <= COMMIT_CHUNK_GROUPS &&
           (heap_state.chunk_committed[first / COMMIT_CHUNK_GROUPS] &
            heap_state.chunk_committed[(first + count - 1) / COMMIT_CHUNK_GROUPS]) != 0;
}

// Makes sure the memory of groups first .. first + count - 1 (count at least 1) is committed.
TARNHEAP_HOT void commit_groups(uint32_t first, uint32_t count) {
    if (TARNHEAP_LIKELY(groups_committed(first, count))) return;
    commit_chunks(first / COMMIT_CHUNK_GROUPS, (first + count - 1) / COMMIT_CHUNK_GROUPS);
}

}  // namespace tarnheap
