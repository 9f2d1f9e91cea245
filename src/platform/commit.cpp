#include "platform/commit.h"

#include <cstdarg>
#include <cstddef>

#include "platform/platform.h"

namespace tarnheap {
namespace {

void report(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_to_standard_error(format, arguments);
    va_end(arguments);
}

}  // namespace

void commit_range(uint64_t address, uint64_t size) {
    void* wanted = reinterpret_cast<void*>(address);
    void* got = os_virtual_alloc(wanted, size, MEMORY_COMMIT, PAGE_READ_WRITE);
    if (got == nullptr)
        report(
            "Error: VirtualAlloc(0x%p, %zu, MEM_COMMIT, PAGE_READWRITE) failed with the "
            "error: %lu\n",
            wanted, static_cast<size_t>(size), static_cast<unsigned long>(os_last_error()));
    // Null differs from the address asked for too, so a failed commit prints both lines.
    if (got != wanted)
        report(
            "Error: VirtualAlloc(0x%p, %zu, MEM_COMMIT, PAGE_READWRITE) returned a "
            "different address: 0x%p\n",
            wanted, static_cast<size_t>(size), got);
}

}  // namespace tarnheap
