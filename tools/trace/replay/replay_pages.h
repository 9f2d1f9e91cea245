// Memory for the replayers' own tables, straight from the operating system: a replay must not
// touch the heap it measures for anything but the recorded calls.
#pragma once

#include <cstddef>

namespace trace {

// Zero-filled pages, or null.
void* replay_pages(size_t bytes);

}  // namespace trace
