// The path markers: fast paths are forced inline into their callers; slow paths, and the
// common but longer paths behind a fast path's miss, are kept out of line so that they do not
// widen the fast paths' frames.
#pragma once

#define TARNHEAP_HOT inline __attribute__((always_inline))
#define TARNHEAP_COLD __attribute__((noinline, cold))
#define TARNHEAP_OUT_OF_LINE __attribute__((noinline))
#define TARNHEAP_LIKELY(x) __builtin_expect(!!(x), 1)
#define TARNHEAP_UNLIKELY(x) __builtin_expect(!!(x), 0)

// For the entries whose fast paths take a few nanoseconds: where they start within a cache line
// moves their time by as much as a change of a few instructions would.
#define TARNHEAP_LINE_ALIGNED __attribute__((aligned(64)))
