// The first half of putting the heap back as the process had it at load: the platform seams
// cleared and the heap's two reservations given back, and the checked build's shadow. Zeroing
// the state is the other half.
#pragma once

#include "checked/shadow.h"
#include "platform/platform.h"
#include "state/build_config.h"
#include "state/heap_state.h"

namespace tarnheap::testing {

inline void release_regions() {
    platform_seams = {};
    if (heap_state.bucket_area_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(region_base()), 0, MEMORY_RELEASE);
    if (heap_state.zeroed_region_base != 0)
        platform_virtual_free(reinterpret_cast<void*>(heap_state.zeroed_region_base), 0,
                              MEMORY_RELEASE);
    if constexpr (CHECKED) release_shadow();
}

}  // namespace tarnheap::testing
