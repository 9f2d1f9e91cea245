#include <windows.h>

#include "platform/stack_trace.h"

namespace tarnheap {
namespace {

// This function's own frame and its caller's.
constexpr DWORD SKIPPED = 2;

// Static: the report that asks must not allocate.
constinit char module_path[MAX_PATH] = {};

}  // namespace

__attribute__((noinline)) unsigned capture_return_addresses(void** addresses, unsigned count) {
    return RtlCaptureStackBackTrace(SKIPPED, count, addresses, nullptr);
}

void prepare_return_address_capture() {}

code_location locate_code(const void* address) {
    HMODULE module = nullptr;
    if (GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<const char*>(address), &module) == 0 ||
        GetModuleFileNameA(module, module_path, sizeof module_path) == 0)
        return {};
    return {module_path, reinterpret_cast<uint64_t>(module), nullptr, 0};
}

}  // namespace tarnheap
