// libFuzzer target: every input is decoded into a sequence of operations on a heap that starts
// fresh, checked by the stress test's model, audited with its live blocks, and emptied again.
// The fuzz preset builds it with clang, -fsanitize=fuzzer and undefined-behaviour checks.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "state/initialise.h"
#include "stress/heap_model.h"
#include "support/release_regions.h"

namespace tarnheap::testing {
namespace {

// Reads the bytes of an input as the draws of the operations; zeros once they run out.
struct byte_draws {
    const uint8_t* data;
    size_t size;

    uint64_t below(uint64_t bound) {
        unsigned bytes = bound <= 0x100 ? 1 : bound <= 0x10000 ? 2 : bound <= 0x100000000 ? 4 : 8;
        uint64_t value = 0;
        for (; bytes > 0 && size > 0; --bytes, --size) value = value << 8 | *data++;
        return value % bound;
    }
};

// Short inputs reach the big areas as often as the small ones.
constexpr size_band FUZZ_BANDS[] = {{1, 64, 20},
                                    {65, 256, 15},
                                    {257, 2688, 15},
                                    {2689, 35328, 10},
                                    {35329, 4451328, 10},
                                    {4451329, 284884992, 5},
                                    {716800, 1048576, 10},
                                    {LARGE_MAX + 1, LARGE_MAX + GIB, 2},
                                    {0, 0, 3}};
constexpr mix FUZZ_MIX = {FUZZ_BANDS, std::size(FUZZ_BANDS), DEFAULT_OPERATIONS};

// The heap as loaded: regions released, the state zeroed. Its pages are handed back to the
// system rather than cleared one by one (the first and last, which may share a page with other
// data, are cleared).
void reset_heap() {
    release_regions();
    uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    uint64_t start = reinterpret_cast<uint64_t>(&heap_state), end = start + sizeof heap_state;
    uint64_t first = (start + page) & ~(page - 1), last = end & ~(page - 1);
    std::memset(&heap_state, 0, first - start);
    std::memset(reinterpret_cast<void*>(last), 0, end - last);
    madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
}

}  // namespace
}  // namespace tarnheap::testing

using namespace tarnheap;
using namespace tarnheap::testing;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    reset_heap();
    heap_initialise();
    // Half of the inputs start past the 200 requests after which calloc uses the zeroed region.
    if (size > 0 && data[0] % 2 == 1) heap_state.zeroed_uses = 200;
    heap_model model(size, 64);
    byte_draws draws{data, size};
    while (draws.size > 0 && !model.failed()) model.execute(draw_operation(draws, FUZZ_MIX));
    model.audit();
    model.finish();
    if (!model.failed()) return 0;
    std::fprintf(stderr, "%s\n", model.failure().c_str());
    std::abort();
}
