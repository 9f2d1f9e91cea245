// The checked build's messages: one line on the standard error stream naming the misuse, the
// call and the block, then the return addresses that led to the call; then the program stops.
#pragma once

#include <cstdint>

#include "checked/block_lookup.h"

namespace tarnheap {

inline constexpr char DOUBLE_RELEASE[] = "double release";
inline constexpr char NOT_BLOCK_START[] = "not the start of a block";
inline constexpr char NOT_HEAP_BLOCK[] = "not a block of this heap";
inline constexpr char WRITE_AFTER_RELEASE[] = "write after release";
inline constexpr char WRITE_PAST_END[] = "write past the block's end";

enum class checked_entry : uint8_t { malloc, calloc, realloc, free };

// The entry point being checked and its arguments, as the messages name the call.
struct checked_call {
    checked_entry entry;
    uint64_t block;  // realloc's and free's
    uint64_t count;  // calloc's
    uint64_t size;   // malloc's, calloc's and realloc's
};

extern checked_call current_call;

// A release or resize of something that is not a block handed out: `block.problem` says what.
[[noreturn]] void stop_for_address(const checked_block& block);

// A write where the program must not write: `problem` is WRITE_AFTER_RELEASE or WRITE_PAST_END,
// and `offset` the first changed byte from the block's start.
[[noreturn]] void stop_for_write(const char* problem, const checked_block& block, uint64_t offset);

// The shadow memory could not be reserved or committed: the checks cannot go on.
[[noreturn]] void stop_for_shadow(const char* operation, uint64_t bytes);

}  // namespace tarnheap
