#pragma once

namespace tarnheap {

// How every failed request ends: errno set to ENOMEM, a null result.
void* out_of_memory();

}  // namespace tarnheap
