#include "support/fresh_heap.h"

#include <cstring>

#include "state/initialise.h"
#include "support/figures.h"
#include "support/release_regions.h"
#include "tarnheap.h"

namespace tarnheap::testing {

void reset_heap() {
    release_regions();
    std::memset(&heap_state, 0, sizeof heap_state);
}

void start_heap() {
    reset_heap();
    heap_initialise();
    ASSERT_EQ(heap_state.init_state, READY);
}

}  // namespace tarnheap::testing
