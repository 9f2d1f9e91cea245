// The platform operations on Windows: direct calls of the kernel's virtual memory functions and
// of the loader, for the C runtime that serves as fallback.
#include <stdio.h>
#include <windows.h>

#include "platform/platform.h"
#include "state/heap_state.h"

static_assert(tarnheap::MEMORY_COMMIT == MEM_COMMIT && tarnheap::MEMORY_RESERVE == MEM_RESERVE);
static_assert(tarnheap::MEMORY_RELEASE == MEM_RELEASE &&
              tarnheap::PAGE_READ_WRITE == PAGE_READWRITE);

namespace tarnheap {

void* platform_virtual_alloc(void* address, uint64_t size, uint32_t type, uint32_t protection) {
    return VirtualAlloc(address, size, type, protection);
}

bool platform_virtual_free(void* address, uint64_t size, uint32_t type) {
    return VirtualFree(address, size, type) != 0;
}

uint32_t platform_last_error() {
    return GetLastError();
}

// msvcrt's own vfprintf: the toolchain's replacement would drag its static runtime into the DLL.
void print_to_standard_error(const char* format, va_list arguments) {
    __ms_vfprintf(stderr, format, arguments);
}

template <typename entry>
entry runtime_entry(HMODULE runtime, const char* name) {
    return reinterpret_cast<entry>(reinterpret_cast<void*>(GetProcAddress(runtime, name)));
}

void load_fallbacks() {
    // A missing runtime is not tested for: the lookups then fail and leave the entries null.
    HMODULE runtime = LoadLibraryA("msvcrt.dll");
    heap_state.fallback_free = runtime_entry<void (*)(void*)>(runtime, "free");
    heap_state.fallback_malloc = runtime_entry<void* (*)(size_t)>(runtime, "malloc");
    heap_state.fallback_calloc = runtime_entry<void* (*)(size_t, size_t)>(runtime, "calloc");
    heap_state.fallback_realloc = runtime_entry<void* (*)(void*, size_t)>(runtime, "realloc");
}

}  // namespace tarnheap
