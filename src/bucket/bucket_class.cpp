#include "bucket/bucket_class.h"

#include <utility>

#include "bucket/bucket_size_table.h"

namespace tarnheap {
namespace {

// The upper classes as a ladder of comparisons with constants, smallest size first: the first
// size that holds the request is its class, and the largest class takes the rest.
template <unsigned... rung>
unsigned upper_class(uint64_t size, std::integer_sequence<unsigned, rung...>) {
    unsigned found = BUCKET_CLASS_COUNT - 1;
    static_cast<void>(((size <= BUCKET_SIZE_TABLE.bytes[BUCKET_LINEAR_CLASSES + rung]
                            ? (found = BUCKET_LINEAR_CLASSES + rung, true)
                            : false) ||
                       ...));
    return found;
}

using upper_rungs =
    std::make_integer_sequence<unsigned, BUCKET_CLASS_COUNT - 1 - BUCKET_LINEAR_CLASSES>;

}  // namespace

unsigned bucket_class_of(uint64_t size) {
    // Classes 1 to 42 are 64 bytes apart; 0 bytes falls to class 0.
    if (size <= BUCKET_LINEAR_MAX) return static_cast<unsigned>((size + 63) >> 6);
    return upper_class(size, upper_rungs{});
}

}  // namespace tarnheap
