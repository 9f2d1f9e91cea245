// How the exported entry points are named and exported in each artefact.
#pragma once

#include "state/build_config.h"

#if TARNHEAP_PREFIXED
#define TARNHEAP_PUBLIC_NAME(name) tarnheap_##name
#else
#define TARNHEAP_PUBLIC_NAME(name) name
#endif

// On Windows the module-definition file fixes the export table.
#ifdef _WIN32
#define TARNHEAP_PUBLIC
#else
#define TARNHEAP_PUBLIC __attribute__((visibility("default")))
#endif

// The five entries of the heap. The checked build renames them and keeps them inside the
// library: its own entries, in checked/checked_entries.cpp, take the public names, check each
// call and hand it on.
#if TARNHEAP_CHECKED
#define TARNHEAP_ENTRY(name) tarnheap_unchecked_##name
#define TARNHEAP_EXPORT
#else
#define TARNHEAP_ENTRY(name) TARNHEAP_PUBLIC_NAME(name)
#define TARNHEAP_EXPORT TARNHEAP_PUBLIC
#endif
