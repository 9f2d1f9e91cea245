#include <dlfcn.h>
#include <execinfo.h>

#include "platform/stack_trace.h"

namespace tarnheap {
namespace {

// This function's own frame and its caller's.
constexpr unsigned SKIPPED = 2;
constexpr unsigned DEPTH_MAX = 64;

}  // namespace

__attribute__((noinline)) unsigned capture_return_addresses(void** addresses, unsigned count) {
    void* frames[DEPTH_MAX];
    int found = backtrace(
        frames, static_cast<int>(count + SKIPPED < DEPTH_MAX ? count + SKIPPED : DEPTH_MAX));
    unsigned kept = 0;
    for (int i = SKIPPED; i < found; ++i) addresses[kept++] = frames[i];
    return kept;
}

void prepare_return_address_capture() {
    void* frame;
    backtrace(&frame, 1);
}

code_location locate_code(const void* address) {
    Dl_info info{};
    if (dladdr(address, &info) == 0) return {};
    return {info.dli_fname, reinterpret_cast<uint64_t>(info.dli_fbase), info.dli_sname,
            reinterpret_cast<uint64_t>(info.dli_saddr)};
}

}  // namespace tarnheap
