// The operating system as the heap sees it: Windows' virtual memory calls, or the Linux port's
// faithful emulation of them. Nothing else in the heap names an operating system.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "platform/seams.h"
#include "state/build_config.h"

namespace tarnheap {

inline constexpr uint32_t MEMORY_COMMIT = 0x1000;
inline constexpr uint32_t MEMORY_RESERVE = 0x2000;
inline constexpr uint32_t MEMORY_RELEASE = 0x8000;
inline constexpr uint32_t PAGE_READ_WRITE = 4;

// VirtualAlloc. With MEMORY_RESERVE: reserves `size` bytes without committing any; `address` 0
// means anywhere (the result is then a multiple of 64 KiB), otherwise the reservation lands
// exactly at `address` rounded down to 64 KiB or the call fails. With MEMORY_COMMIT: `address`
// to `address` + `size` must lie inside one reservation, whose pages then read as zero until
// written; the call fails otherwise. Returns the base (page-aligned) or null, with the reason
// in os_last_error().
void* platform_virtual_alloc(void* address, uint64_t size, uint32_t type, uint32_t protection);

// VirtualFree with MEMORY_RELEASE and size 0: gives up the whole reservation that begins at
// `address`. Fails for an address that begins no reservation, and for any other size or type.
bool platform_virtual_free(void* address, uint64_t size, uint32_t type);

// GetLastError: the error code of the last failed call above.
uint32_t platform_last_error();

// Fills the state's four fallback entries from the platform C runtime ("msvcrt.dll" on
// Windows), and in the Linux drop-in drop_in_fallbacks too; a missing runtime or name leaves its
// entry null. May re-enter the heap.
void load_fallbacks();

// The C runtime's formatted print to its standard error stream (msvcrt's on Windows, which
// renders %p its own way).
void print_to_standard_error(const char* format, va_list arguments);

inline void* os_virtual_alloc(void* address, uint64_t size, uint32_t type, uint32_t protection) {
    if constexpr (TEST_SEAMS)
        if (platform_seams.virtual_alloc)
            return platform_seams.virtual_alloc(address, size, type, protection);
    return platform_virtual_alloc(address, size, type, protection);
}

inline bool os_virtual_free(void* address, uint64_t size, uint32_t type) {
    if constexpr (TEST_SEAMS)
        if (platform_seams.virtual_free) return platform_seams.virtual_free(address, size, type);
    return platform_virtual_free(address, size, type);
}

inline uint32_t os_last_error() {
    if constexpr (TEST_SEAMS)
        if (platform_seams.last_error) return platform_seams.last_error();
    return platform_last_error();
}

}  // namespace tarnheap
