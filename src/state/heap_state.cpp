#include "state/heap_state.h"

namespace tarnheap {

// Zero-initialised: it lands in the image's zero-fill section and costs nothing until touched.
constinit heap_state_record heap_state{};

}  // namespace tarnheap
