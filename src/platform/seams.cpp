#include "platform/seams.h"

namespace tarnheap {

constinit platform_seams_record platform_seams{};

}  // namespace tarnheap
