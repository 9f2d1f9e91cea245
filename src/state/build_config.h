// The build variant, fixed per library by the build system. Code switches on these constants
// with `if constexpr`, so every variant compiles every path and release builds carry none of
// the test hooks.
#pragma once

#ifndef TARNHEAP_SIMULATED_VENDOR
#define TARNHEAP_SIMULATED_VENDOR ""
#endif
#ifndef TARNHEAP_TEST_SEAMS
#define TARNHEAP_TEST_SEAMS 0
#endif
#ifndef TARNHEAP_PREFIXED
#define TARNHEAP_PREFIXED 0
#endif
#ifndef TARNHEAP_LINUX_DROP_IN
#define TARNHEAP_LINUX_DROP_IN 0
#endif
#ifndef TARNHEAP_CHECKED
#define TARNHEAP_CHECKED 0
#endif

namespace tarnheap {

// When not empty, the processor vendor read returns this instead of executing CPUID, so that
// tests and benchmarks can run the heap on ordinary processors.
inline constexpr char SIMULATED_VENDOR[] = TARNHEAP_SIMULATED_VENDOR;
inline constexpr bool HAS_SIMULATED_VENDOR = sizeof(SIMULATED_VENDOR) > 1;
static_assert(!HAS_SIMULATED_VENDOR || sizeof(SIMULATED_VENDOR) == 13,
              "a vendor string is exactly 12 characters");

// Platform operations consult the overrides of platform_seams (platform/seams.h).
inline constexpr bool TEST_SEAMS = TARNHEAP_TEST_SEAMS;

// The embeddable library names its entry points tarnheap_malloc and so on and falls back on the
// C library it is linked with; the shared libraries use the standard names.
inline constexpr bool PREFIXED_ENTRIES = TARNHEAP_PREFIXED;

// The Linux shared library stands in for the C library's allocator in programs written for it,
// which take a null result for exhaustion and call the rest of its allocation functions: there,
// and only there, requests for nothing get a block, calloc refuses a product that overflows, and
// the aligned allocators, reallocarray and malloc_usable_size are exported too.
inline constexpr bool LINUX_DROP_IN = TARNHEAP_LINUX_DROP_IN;
static_assert(!LINUX_DROP_IN || !PREFIXED_ENTRIES, "the drop-in uses the standard names");

// The checked build finds a program's misuse of the heap: releases of blocks that are not
// handed out, writes after release and past a block's end. It hands out the same blocks as the
// release build, keeps its own records in shadow memory and stops the program at the first
// misuse with a message. Its code lives in src/checked and is compiled into checked builds only.
inline constexpr bool CHECKED = TARNHEAP_CHECKED;

}  // namespace tarnheap
