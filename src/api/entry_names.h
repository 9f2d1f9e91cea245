// How the exported entry points are named and exported in each artefact.
#pragma once

#include "state/build_config.h"

#if TARNHEAP_PREFIXED
#define TARNHEAP_ENTRY(name) tarnheap_##name
#else
#define TARNHEAP_ENTRY(name) name
#endif

// On Windows the module-definition file fixes the export table.
#ifdef _WIN32
#define TARNHEAP_EXPORT
#else
#define TARNHEAP_EXPORT __attribute__((visibility("default")))
#endif
