// One recorded call made again on a heap, and what the replay keeps of each live block.
//
// `heap` is a record of static functions with the C library's names and signatures (malloc,
// calloc, realloc, free, posix_memalign, aligned_alloc, memalign, valloc, pvalloc,
// reallocarray), so that the calls are direct. Each block gets its identity written into its
// first bytes and one byte on every further page, as a program would write it; the identity is
// checked again when the block is resized or freed, which catches blocks that overlap.
#pragma once

#include <algorithm>
#include <cstdint>

#include "trace_reader.h"

namespace trace {

struct replay_block {
    void* address;  // null when the replay has no block for this identity
    uint64_t bytes;
};

struct replay_tally {
    uint64_t operations;
    uint64_t failures;         // null for a request of bytes where the recording had a block
    uint64_t zero_size_nulls;  // null for a zero-size request where the recording had a block
    uint64_t extra_blocks;     // a block where the recording had null: freed at once
    uint64_t damaged;          // a block whose identity bytes changed while it lived
    uint64_t first_failure;    // operation index of the first failure, or of the first damage
};

constexpr uint64_t TOUCH_STRIDE = 4096;
constexpr uint64_t TAG_BYTES = 8;

// Byte loops rather than memcpy and memcmp of a variable length, which would be calls into
// the C library that instruction counts of the heap's calls must not include.
inline void tag_block(const replay_block& block, uint64_t identity, uint64_t from) {
    auto* bytes = static_cast<uint8_t*>(block.address);
    for (uint64_t i = 0; i < std::min(block.bytes, TAG_BYTES); ++i)
        bytes[i] = static_cast<uint8_t>(identity >> (8 * i));
    for (uint64_t at = std::max(from, TOUCH_STRIDE); at < block.bytes; at += TOUCH_STRIDE)
        bytes[at] = 1;
}

inline bool tag_holds(const void* address, uint64_t bytes, uint64_t identity) {
    const auto* tag = static_cast<const uint8_t*>(address);
    for (uint64_t i = 0; tag != nullptr && i < std::min(bytes, TAG_BYTES); ++i)
        if (tag[i] != static_cast<uint8_t>(identity >> (8 * i))) return false;
    return true;
}

inline void note_failure(replay_tally& tally, uint64_t& counter) {
    if (tally.failures + tally.damaged == 0) tally.first_failure = tally.operations;
    ++counter;
}

inline void check_tag(replay_tally& tally, const replay_block& block, uint64_t identity) {
    if (!tag_holds(block.address, block.bytes, identity)) note_failure(tally, tally.damaged);
}

// A null result where the recording had a block.
inline void count_null(replay_tally& tally, uint64_t bytes) {
    if (bytes == 0)
        ++tally.zero_size_nulls;
    else
        note_failure(tally, tally.failures);
}

template <typename heap>
__attribute__((always_inline)) inline void replay_new(const trace_op& op, void* address,
                                                      uint64_t bytes, replay_block* blocks,
                                                      replay_tally& tally) {
    if (op.flags & TRACE_FLAG_NULL_RESULT) {
        if (address != nullptr) {
            ++tally.extra_blocks;
            heap::free(address);
        }
        return;
    }
    blocks[op.identity] = {address, address == nullptr ? 0 : bytes};
    if (address == nullptr) return count_null(tally, bytes);
    tag_block(blocks[op.identity], op.identity, 0);
}

template <typename heap>
__attribute__((always_inline)) inline void replay_resize(const trace_op& op, uint64_t bytes,
                                                         replay_block* blocks,
                                                         replay_tally& tally) {
    bool from_null = op.flags & TRACE_FLAG_FROM_NULL;
    replay_block& block = blocks[op.identity];
    replay_block old = from_null ? replay_block{} : block;
    check_tag(tally, old, op.identity);
    void* moved = op.call == TRACE_REALLOC ? heap::realloc(old.address, op.first)
                                           : heap::reallocarray(old.address, op.first, op.second);
    bool recorded_null = op.flags & TRACE_FLAG_NULL_RESULT;
    if (moved == nullptr) {
        // A resize to 0 bytes frees the block; a failed one keeps it.
        if (bytes == 0 && old.address != nullptr) block = {};
        if (!recorded_null) count_null(tally, bytes);
        return;
    }
    if (recorded_null && (op.identity == 0 || bytes == 0)) {
        ++tally.extra_blocks;
        heap::free(moved);
        if (op.identity != 0) block = {};
        return;
    }
    block = {moved, bytes};
    if (!tag_holds(moved, std::min(old.bytes, bytes), op.identity) && !from_null)
        note_failure(tally, tally.damaged);
    tag_block(block, op.identity, old.bytes);
}

template <typename heap>
__attribute__((always_inline)) inline void replay_free(const trace_op& op, replay_block* blocks,
                                                       replay_tally& tally) {
    replay_block& block = blocks[op.identity];
    if (op.identity == 0) return heap::free(nullptr);
    check_tag(tally, block, op.identity);
    heap::free(block.address);
    block = {};
}

template <typename heap>
__attribute__((always_inline)) inline void replay_op(const trace_op& op, replay_block* blocks,
                                                     replay_tally& tally) {
    switch (op.call) {
        case TRACE_MALLOC:
            replay_new<heap>(op, heap::malloc(op.first), op.first, blocks, tally);
            break;
        case TRACE_CALLOC:
            replay_new<heap>(op, heap::calloc(op.first, op.second), op.first * op.second, blocks,
                             tally);
            break;
        case TRACE_POSIX_MEMALIGN: {
            void* address = nullptr;
            if (heap::posix_memalign(&address, op.first, op.second) != 0) address = nullptr;
            replay_new<heap>(op, address, op.second, blocks, tally);
            break;
        }
        case TRACE_ALIGNED_ALLOC:
            replay_new<heap>(op, heap::aligned_alloc(op.first, op.second), op.second, blocks,
                             tally);
            break;
        case TRACE_MEMALIGN:
            replay_new<heap>(op, heap::memalign(op.first, op.second), op.second, blocks, tally);
            break;
        case TRACE_VALLOC:
            replay_new<heap>(op, heap::valloc(op.first), op.first, blocks, tally);
            break;
        case TRACE_PVALLOC:
            replay_new<heap>(op, heap::pvalloc(op.first), op.first, blocks, tally);
            break;
        case TRACE_REALLOC:
            replay_resize<heap>(op, op.first, blocks, tally);
            break;
        case TRACE_REALLOCARRAY: {
            // An overflowing product fails; it must not pass for a resize to 0 bytes.
            uint64_t bytes;
            if (__builtin_mul_overflow(op.first, op.second, &bytes)) bytes = UINT64_MAX;
            replay_resize<heap>(op, bytes, blocks, tally);
            break;
        }
        case TRACE_FREE:
            replay_free<heap>(op, blocks, tally);
            break;
    }
    ++tally.operations;
}

}  // namespace trace
