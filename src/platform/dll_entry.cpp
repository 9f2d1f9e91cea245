// The DLL's load-time entry. The heap initialises lazily on its first slow path; loading does
// nothing for it beyond declining thread notifications, which it has no use for.
#include <windows.h>

extern "C" BOOL WINAPI tarnheap_dll_entry(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
    return TRUE;
}
