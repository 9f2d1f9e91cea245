// The entry points of the checked build. Each names its call for the messages, checks what the
// program hands it, passes the call on to the heap's own entry, renamed in this build (see
// api/entry_names.h), and records what the heap handed out or took back.
#include <cstddef>

#include "api/entry_names.h"
#include "checked/hand_out_checks.h"
#include "checked/misuse_report.h"
#include "checked/release_checks.h"

static_assert(tarnheap::CHECKED, "only the checked build wraps the entry points");

extern "C" {
void* tarnheap_unchecked_malloc(size_t size);
void* tarnheap_unchecked_calloc(size_t count, size_t size);
void* tarnheap_unchecked_realloc(void* block, size_t size);
void tarnheap_unchecked_free(void* block);
int tarnheap_unchecked_mallopt(int option, int value);
}

using namespace tarnheap;

namespace {

// A request for nothing gets a block only from the Linux drop-in, which serves it as a request
// for a byte.
uint64_t requested(uint64_t size) {
    return size != 0 ? size : 1;
}

// A product that wraps to zero is served as a request for the smallest block; the program
// thinks it owns far more, so no byte of the block is guarded.
uint64_t calloc_requested(uint64_t count, uint64_t size) {
    if (count == 0 || size == 0) return requested(0);
    uint64_t product = count * size;
    return product != 0 ? product : UNKNOWN_REQUEST;
}

}  // namespace

extern "C" TARNHEAP_PUBLIC void* TARNHEAP_PUBLIC_NAME(malloc)(size_t size) {
    current_call = {checked_entry::malloc, 0, 0, size};
    void* block = tarnheap_unchecked_malloc(size);
    record_hand_out(block, requested(size));
    return block;
}

extern "C" TARNHEAP_PUBLIC void* TARNHEAP_PUBLIC_NAME(calloc)(size_t count, size_t size) {
    current_call = {checked_entry::calloc, 0, count, size};
    void* block = tarnheap_unchecked_calloc(count, size);
    record_hand_out(block, calloc_requested(count, size));
    return block;
}

extern "C" TARNHEAP_PUBLIC void* TARNHEAP_PUBLIC_NAME(realloc)(void* block, size_t size) {
    auto address = reinterpret_cast<uint64_t>(block);
    current_call = {checked_entry::realloc, address, 0, size};
    if (block == nullptr) {
        void* fresh = tarnheap_unchecked_realloc(nullptr, size);
        record_hand_out(fresh, requested(size));
        return fresh;
    }
    checked_block old = check_release(address);
    if (old.area == block_area::foreign) return tarnheap_unchecked_realloc(block, size);
    if (size == 0) record_release(old);
    void* resized = tarnheap_unchecked_realloc(block, size);
    // Null leaves the block as it was; a new block means the old one was released.
    if (resized != nullptr && resized != block) record_release(old);
    record_hand_out(resized, size);
    return resized;
}

extern "C" TARNHEAP_PUBLIC void TARNHEAP_PUBLIC_NAME(free)(void* block) {
    auto address = reinterpret_cast<uint64_t>(block);
    current_call = {checked_entry::free, address, 0, 0};
    record_release(check_release(address));
    tarnheap_unchecked_free(block);
}

extern "C" TARNHEAP_PUBLIC int TARNHEAP_PUBLIC_NAME(mallopt)(int option, int value) {
    return tarnheap_unchecked_mallopt(option, value);
}
