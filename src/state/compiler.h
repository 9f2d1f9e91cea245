// The two path markers: fast paths are forced inline into their callers, slow paths are kept
// out of line so that they do not widen the fast paths' frames.
#pragma once

#define TARNHEAP_HOT inline __attribute__((always_inline))
#define TARNHEAP_COLD __attribute__((noinline, cold))
#define TARNHEAP_LIKELY(x) __builtin_expect(!!(x), 1)
#define TARNHEAP_UNLIKELY(x) __builtin_expect(!!(x), 0)
