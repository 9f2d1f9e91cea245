#include "support/fresh_heap.h"

#include <cstring>

#include "platform/platform.h"
#include "state/initialise.h"
#include "tarnheap.h"

namespace tarnheap::testing {

void reset_heap() {
    platform_seams = {};
    if (heap_state.bucket_area_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(region_base()), 0, MEMORY_RELEASE);
    if (heap_state.zeroed_region_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(heap_state.zeroed_region_base), 0,
                              MEMORY_RELEASE);
    std::memset(&heap_state, 0, sizeof heap_state);
}

void start_heap() {
    reset_heap();
    heap_initialise();
    ASSERT_EQ(heap_state.init_state, INIT_READY);
}

}  // namespace tarnheap::testing
